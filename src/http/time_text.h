// time_text - a time of the wall clock as it stands in JSON: "2026-11-22T01:08:26.123Z".
//
// Ownership  Values.
// Threads    Any: pure.
// Failures   std::bad_alloc.
#pragma once

#include <cstdint>
#include <string>

namespace rtls {

// `ms`: milliseconds of the epoch. Throws std::bad_alloc.
std::string utc_text(int64_t ms);

} // namespace rtls
