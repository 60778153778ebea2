// own_addresses - which IPv4 addresses are this host's own.
//
// Asks the system at most once a second, and only when asked itself: an address that has come or gone within
// the last second may be judged by what was.
// Threads    None of its own. Nothing waits for the network.
// Failures   When the system does not answer, the last list stands. Nothing is logged or throws.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

namespace rtls {

class own_addresses {
public:
    // `now_ms`: any monotonic clock. All of 127.0.0.0/8 is our own.
    bool contain(in_addr address, int64_t now_ms) noexcept;

private:
    void refresh() noexcept;

    std::vector<in_addr_t> m_addresses; // network order
    int64_t m_next_refresh_ms = INT64_MIN;
};

} // namespace rtls
