// allocation_count - counts what is allocated, and lets it fail; linked into a test, it replaces all forms
// of `new`.
#pragma once

#include <cstddef>

// By the calling thread since it started; the libraries' own threads allocate, too.
size_t allocations_of_this_thread();

// Whether the following can be done: not where the thread sanitizer owns the operators.
bool allocations_can_fail();

// Lets the calling thread's allocation after the next `count` fail, once.
void fail_allocation_after(size_t count);

// Calls it off. Whether it was still to come.
bool cancel_failing_allocation();
