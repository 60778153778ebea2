// sock - sockets of a test's own.
//
// Threads    Any. Nothing fails.
#pragma once

#include "base/czmq_ptr.h"

#include <atomic>
#include <string>

namespace rtls {

// A name within this process, never the same one twice: a closed socket gives its name up some time
// after its end.
inline std::string new_endpoint()
{
    static std::atomic<unsigned> number = 0;
    return "inproc://test_" + std::to_string(++number);
}

} // namespace rtls
