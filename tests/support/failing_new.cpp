#include "support/failing_new.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OPERATORS_ARE_TAKEN
#endif
#endif

static thread_local unsigned failures = 0;
static thread_local size_t smallest_to_fail = 0;

namespace rtls {

bool allocations_can_fail()
{
#ifdef OPERATORS_ARE_TAKEN
    return false;
#else
    return true;
#endif
}

void fail_next_allocations(unsigned count, size_t at_least)
{
    failures = count;
    smallest_to_fail = at_least;
}

unsigned failures_left()
{
    return failures;
}

} // namespace rtls

#ifndef OPERATORS_ARE_TAKEN

static void* allocate(size_t size) noexcept
{
    if (failures == 0 || size < smallest_to_fail)
        return malloc(size == 0 ? 1 : size);
    --failures;
    return nullptr;
}

static void* allocate_or_throw(size_t size)
{
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

// Every form but the aligned ones: a block of one must never meet the other library's delete.
void* operator new(size_t size)
{
    return allocate_or_throw(size);
}
void* operator new[](size_t size)
{
    return allocate_or_throw(size);
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return allocate(size);
}
void operator delete(void* memory) noexcept
{
    free(memory);
}
void operator delete[](void* memory) noexcept
{
    free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept
{
    free(memory);
}
void operator delete[](void* memory, size_t /*size*/) noexcept
{
    free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept
{
    free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept
{
    free(memory);
}

#endif
