// failing_new - lets allocations with `new` fail.
//
// A program that includes this replaces the global operators new and delete.
// Threads    The failures hit the thread that asked for them, nobody else.
#pragma once

// Lets the calling thread's next `count` allocations with `new` fail.
void fail_next_allocations(unsigned count);

// How many of them are still to come.
unsigned failures_left();
