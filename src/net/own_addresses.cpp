#include "net/own_addresses.h"

#include <ifaddrs.h>

#include <algorithm>
#include <exception>
#include <memory>

namespace rtls {

static constexpr int64_t refresh_period_ms = 1000;

void own_addresses::refresh() noexcept
{
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list{first, freeifaddrs};
    try {
        std::vector<in_addr_t> found;
        for (const ifaddrs* item = first; item; item = item->ifa_next)
            if (item->ifa_addr && item->ifa_addr->sa_family == AF_INET)
                found.push_back(reinterpret_cast<const sockaddr_in*>(item->ifa_addr)->sin_addr.s_addr);
        m_addresses.swap(found);
    } catch (const std::exception&) {
        return; // memory is short: the last list stands
    }
}

bool own_addresses::contain(in_addr address, int64_t now_ms) noexcept
{
    if (ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET)
        return true;
    if (now_ms >= m_next_refresh_ms) {
        m_next_refresh_ms = now_ms + refresh_period_ms;
        refresh();
    }
    return std::ranges::find(m_addresses, address.s_addr) != m_addresses.end();
}

} // namespace rtls
