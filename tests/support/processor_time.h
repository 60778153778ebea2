// processor_time - what the calling thread has had of the processor: how busy the machine is with others does not show.
//
// Threads    Any. Nothing fails.
#pragma once

#include <chrono>
#include <ctime>

namespace rtls {

inline std::chrono::nanoseconds processor_time()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

} // namespace rtls
