// command_line - the recorder's options, and its run.
//
// Threads    The main thread.
// Failures   Told on the error output; the status says which kind, see tap/failure.h.
#pragma once

#include <string>
#include <vector>

namespace record {

// Runs the program; its exit status. `arguments`: without its name.
int run_command_line(const std::vector<std::string>& arguments);

} // namespace record
