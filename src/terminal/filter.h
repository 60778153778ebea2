// terminal_filter - compiles an operator's grep pattern, unless it could take the daemon down.
#pragma once

#include <regex.h>

#include <string_view>

namespace rtls {

// Whether a POSIX extended pattern is cheap enough to compile and to match with. The C library expands
// repetitions when it compiles: "(a{1,9999}){1,99}" or a mere "x" with thirty "+" behind it takes
// gigabytes, hours, or the whole stack; a back-reference makes matching exponential. The thread that
// does either serves every operator.
bool is_affordable_pattern(std::string_view pattern);

// A compiled filter (malloc; release with regfree and free); or null, with errno telling of a shortage
// of memory and 0 otherwise.
regex_t* compile_filter(const char* pattern);

} // namespace rtls
