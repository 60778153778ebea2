// strict_json - whether a text is one JSON value by the letter of RFC 8259, and nothing else.
//
// Stricter than many readers: no zeros before a number, no control characters in a string, no comma at the end,
// well-formed UTF-8, no name twice in an object.
// Threads    Any; a pure function.
// Failures   None. Texts nested deeper than 64 levels count as wrong.
#pragma once

#include <string_view>

namespace rtls::fuzzing {

bool is_strict_json(std::string_view text);

} // namespace rtls::fuzzing
