// address_counts - how many connections each IPv4 address holds.
//
// Threads    None of its own. Nothing waits.
// Failures   add throws std::bad_alloc and counts nothing then.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <unordered_map>

namespace rtls {

class address_counts {
public:
    void add(in_addr address) { ++m_counts[address.s_addr]; }
    // One of those that were added.
    void remove(in_addr address) noexcept
    {
        const auto found = m_counts.find(address.s_addr);
        if (found != m_counts.end() && --found->second == 0)
            m_counts.erase(found);
    }
    size_t of(in_addr address) const noexcept
    {
        const auto found = m_counts.find(address.s_addr);
        return found == m_counts.end() ? 0 : found->second;
    }

private:
    std::unordered_map<in_addr_t, size_t> m_counts; // zeros are not kept
};

} // namespace rtls
