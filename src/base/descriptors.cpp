#include "base/descriptors.h"

#include <sys/resource.h>

#include <cstdint>

namespace rtls {

static size_t as_number(rlim_t limit)
{
    return limit == RLIM_INFINITY ? SIZE_MAX : static_cast<size_t>(limit);
}

size_t raise_descriptor_limit() noexcept
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return SIZE_MAX;
    const rlimit raised{.rlim_cur = limit.rlim_max, .rlim_max = limit.rlim_max};
    return as_number(setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur);
}

bool is_reserved_descriptor(int fd) noexcept
{
    rlimit limit{}; // asked each time: an administrator may change it while we run
    if (fd < 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    const size_t allowed = as_number(limit.rlim_cur);
    return allowed != SIZE_MAX && static_cast<size_t>(fd) + descriptors_reserved >= allowed;
}

} // namespace rtls
