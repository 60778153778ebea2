// allocation_count - counts what is allocated; linked into a test, it replaces all forms of `new`.
#pragma once

#include <cstddef>

// By the calling thread since it started; the libraries' own threads allocate, too.
size_t allocations_of_this_thread();
