// output - the standard output of a program, which may have no reader and no room.
//
// Ownership  None.
// Threads    One at a time.
// Blocking   As long as the reader takes.
// Failures   output_error when it cannot be written; a reader who has left is none.
#pragma once

#include <stdexcept>
#include <string>

namespace tools {

// In words: "cannot write the output: No space left on device".
class output_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// False when nobody reads any more. What is printed leaves when it is flushed, or when there is much of it.
bool print(const std::string& text);
bool flush_output();

} // namespace tools
