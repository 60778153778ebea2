// filter - compiles an operator's grep pattern, unless it could take the daemon down.
//
// Ownership  A compiled filter is the caller's.
// Threads    None of its own; no lock. Compiling a pattern takes half a second at most.
// Failures   A refused pattern is for the caller to report; a shortage of memory is logged, too.
#pragma once

#include <regex.h>

#include <memory>
#include <string_view>

namespace rtls {

// Whether a POSIX extended pattern is cheap enough to compile and to match with. The C library expands
// repetitions when it compiles: "(a{1,9999}){1,99}" or a mere "x" with thirty "+" behind it takes
// gigabytes, hours, or the whole stack; a back-reference makes matching exponential. The thread that
// does either serves every operator.
bool is_affordable_pattern(std::string_view pattern);

struct regex_freed {
    void operator()(regex_t* compiled) const noexcept
    {
        regfree(compiled);
        delete compiled;
    }
};
using regex_ptr = std::unique_ptr<regex_t, regex_freed>; // of a compiled expression

// A compiled filter; or null, with errno telling of a shortage of memory and 0 otherwise.
regex_ptr compile_filter(const char* pattern);

} // namespace rtls
