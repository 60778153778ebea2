// filter - an operator's grep pattern: compiled, unless it could take the daemon down, and matched.
//
// Patterns are POSIX extended expressions, the case counts, and \<, \>, \b, \w, \d and \s are known, too.
// The matcher walks each line once and keeps no more than the pattern's own positions: neither a line nor
// a series of them can make it slow or large. (The C library's keeps every set of positions it meets: one
// long line took it minutes and gigabytes.) So what a pattern costs is known before it is compiled.
//
// Ownership  A compiled filter is the caller's.
// Threads    None of its own; no lock. Compiling takes less than 100 ms, matching about 2 ms a line.
// Failures   A refused pattern is for the caller to report; a shortage of memory is logged, too.
#pragma once

#include <memory>
#include <string_view>

namespace rtls {

// 0 when a pattern may be compiled; E2BIG when that or the matching would cost too much (repetitions are
// written out in compiling: "((a{99}){99}){99}" takes gigabytes); EINVAL for what the matcher cannot do
// at a bounded cost (back-references), and for some of what is no valid pattern: the compiler refuses
// the rest.
int pattern_error(std::string_view pattern) noexcept;

struct line_filter; // a compiled pattern

struct line_filter_freed {
    void operator()(line_filter* filter) const noexcept;
};
using filter_ptr = std::unique_ptr<line_filter, line_filter_freed>;

// A compiled filter; or null, with errno telling why: EINVAL for no valid pattern, E2BIG for one that costs
// too much, ENOMEM for a shortage of memory.
filter_ptr compile_filter(const char* pattern) noexcept;

// Whether a line passes. It does, too, when memory is too short to tell.
bool passes(const line_filter& filter, const char* line) noexcept;

} // namespace rtls
