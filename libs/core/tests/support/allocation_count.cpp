#include "support/allocation_count.h"

#include <cstdlib>
#include <new>
#include <utility>

static constexpr size_t never = static_cast<size_t>(-1);

static thread_local size_t allocations = 0;
static thread_local size_t until_failure = never;

size_t allocations_of_this_thread()
{
    return allocations;
}

void fail_allocation_after(size_t count)
{
    until_failure = count;
}

bool cancel_failing_allocation()
{
    return std::exchange(until_failure, never) != never;
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RTLS_THREAD_SANITIZER
#endif
#endif

#if defined(RTLS_THREAD_SANITIZER)

bool allocations_can_fail()
{
    return false;
}

// The sanitizer has its own operators, which cannot be replaced, but tells of each allocation.
extern "C" __attribute__((no_sanitize("thread"))) void __sanitizer_malloc_hook(const volatile void*, size_t)
{
    ++allocations;
}

#else

bool allocations_can_fail()
{
    return true;
}

static void* allocate(size_t size) noexcept
{
    ++allocations;
    if (until_failure != never && until_failure-- == 0) // and is `never` then
        return nullptr;
    return std::malloc(size);
}

static void* allocate_or_throw(size_t size)
{
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

void* operator new(size_t size)
{
    return allocate_or_throw(size);
}

void* operator new[](size_t size)
{
    return allocate_or_throw(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, size_t) noexcept
{
    std::free(memory);
}

#endif
