#include "support/allocation_count.h"

#include <cstdlib>
#include <new>

static thread_local size_t allocations = 0;

size_t allocations_of_this_thread()
{
    return allocations;
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RTLS_THREAD_SANITIZER
#endif
#endif

#if defined(RTLS_THREAD_SANITIZER)

// The sanitizer has its own operators, which cannot be replaced, but tells of each allocation.
extern "C" __attribute__((no_sanitize("thread"))) void __sanitizer_malloc_hook(const volatile void*, size_t)
{
    ++allocations;
}

#else

static void* allocate(size_t size) noexcept
{
    ++allocations;
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
