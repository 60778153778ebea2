// failing_new - lets allocations with `new` fail.
//
// A program that uses this replaces the global operators new and delete. Where the thread sanitizer
// owns them, nothing can be made to fail: ask first.
// Threads    The failures hit the thread that asked for them, nobody else.
#pragma once

#include <cstddef>

namespace rtls {

bool allocations_can_fail();

// Lets the calling thread's next `count` allocations with `new` fail that ask for so many bytes.
void fail_next_allocations(unsigned count, size_t at_least = 0);

// How many of them are still to come.
unsigned failures_left();

} // namespace rtls
