// command_line - the options of rtls-mqtt, and its run.
//
// Ownership  None.
// Threads    The main thread.
// Failures   Told on the error output; the status says which kind, see tap/failure.h.
#pragma once

#include "common/program.h"

namespace mqtt {

// Runs the program; its exit status. `arguments`: without its name.
int run_command_line(const tools::arguments& arguments);

} // namespace mqtt
