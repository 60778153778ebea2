// status - what the simulator's end says to scripts. The help of the program has the same list.
//
// Threads    Any; values only.
#pragma once

namespace sim {

enum class exit_status : int {
    done = 0,
    failed = 1,      // a file, a port, the output; or the check found something missing
    usage = 2,       // the command line is wrong; nothing was done
    unreachable = 3, // no gateway, within the time that was given to it
};

} // namespace sim
