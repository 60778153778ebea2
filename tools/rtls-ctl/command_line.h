// command_line - the program's subcommands and options, and the way from what was typed to what is done.
//
// Threads    The main thread.
// Failures   Told on the error output; the status says which kind, see failure.h.
#pragma once

#include <string>
#include <vector>

namespace ctl {

// Runs the program; its exit status. `arguments`: without its name.
int run_command_line(const std::vector<std::string>& arguments);

} // namespace ctl
