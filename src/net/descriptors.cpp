#include "net/descriptors.h"

#include "base/logger.h"

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

bool full_house::refuses(int fd, int64_t now_ms) noexcept
{
    if (!is_reserved_descriptor(fd))
        return false;
    m_refused.fetch_add(1, std::memory_order_relaxed);
    if (m_episode.begins(now_ms))
        logger_error(g_logger,
                     "nearly all files that may be open are, no more %s are let in! See ulimit -Hn, or "
                     "LimitNOFILE=",
                     m_guests);
    return true;
}

} // namespace rtls
