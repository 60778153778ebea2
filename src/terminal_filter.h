// terminal_filter - compiles an operator's grep pattern, unless it could take the daemon down.
#pragma once

#include <regex.h>

#include <string_view>

// Whether a POSIX extended pattern is cheap enough to compile and to match with. Nested repetition
// counts can take gigabytes to compile, and back-references exponential time to match, and the thread
// that does it serves every operator.
bool is_affordable_pattern(std::string_view pattern);

// A compiled filter (malloc; release with regfree and free); or null, with errno telling of a shortage
// of memory and 0 otherwise.
regex_t* compile_filter(const char* pattern);
