// failure - why a command could not be done, and the exit status that tells it to scripts.
//
// Ownership  A value.
// Threads    Any; one that is thrown on a gateway's thread is caught there, and told by the main thread.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "common/failure.h"

namespace ctl {

// Scripts depend on the numbers. Of several gateways the largest is the program's.
enum class exit_status : int {
    done = 0,
    refused = 1,     // by the gateway, or there is no such thing
    usage = 2,       // the command line or the configuration file is wrong: nothing was done
    unreachable = 3, // nobody answers where the gateway should be, or it hangs up
    timed_out = 4,   // it is there, but what was waited for did not come
};

using failure = tools::failure_with<exit_status>;

} // namespace ctl
