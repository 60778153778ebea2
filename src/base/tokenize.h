// tokenize - splits a command line in place.
//
// Ownership  The words stay the line's.
// Threads    Any. Nothing waits, nothing is allocated.
// Failures   A null argument is logged, and there are no words.
#pragma once

#include <cstdint>

namespace rtls {

// Cuts `line` at blanks, tabs and line ends and stores the words' addresses in `argv`, their number
// in `pargc`. After max_arguments words the rest of the line stays untouched. `pargc` must not be
// null; a null `line` or `argv` is logged and gives no words.
void tokenize(char* line, uint16_t* pargc, char** argv, uint16_t max_arguments);

} // namespace rtls
