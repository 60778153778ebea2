// stop - the daemon's request to stop, taken back.
//
// Threads    The test's own; no actor may run.
#pragma once

#include <czmq.h>

namespace rtls {

// The end of an actor asks the process to stop, and the daemon never takes it back.
inline void clear_stop()
{
    __atomic_store_n(&zsys_interrupted, 0, __ATOMIC_RELAXED);
}

} // namespace rtls
