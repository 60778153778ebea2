// lines - messages as lines: for people, or as JSON.
//
// Ownership  Values.
// Threads    Any; pure.
// Bytes      UTF-8. What would move a terminal's cursor, and what is no UTF-8, is shown as \xNN, in JSON as \u00NN and
//            as U+FFFD.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "rtls-tail/viewer.h"

#include <string>

namespace tail {

// What json_line() writes.
nlohmann::ordered_json line_object(const sight& it);

// Each with its end.
std::string readable_line(const sight& it);
std::string json_line(const sight& it);

// "2026-11-22T15:10:27.123456Z"
std::string time_text(uint64_t clock_ns);

} // namespace tail
