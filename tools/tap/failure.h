// failure - why a program could not do what it was told, and the exit status that tells it to scripts.
//
// Ownership  A value.
// Threads    Any.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "common/failure.h"

namespace tap {

// Scripts depend on the numbers.
enum class exit_status : int {
    done = 0,
    failed = 1,      // a file cannot be read or written, or is damaged; an output takes nothing
    usage = 2,       // the command line is wrong: nothing was done
    unreachable = 3, // nobody answers at the endpoint
    incomplete = 4,  // done, but messages were missed, or something differs
};

using failure = tools::failure_with<exit_status>;

} // namespace tap
