// unsent_count - how many messages the library holds of a link that is not up.
//
// A link that is connected again loses them: the library's queue belongs to the connection that it has given
// up. What it took while the link was up is not counted: of that, a server that takes messages has left next
// to nothing in the queue. One that takes none, or too few, leaves a full queue, and the messages that it
// refuses tell so: then all that fits into it counts, and the count is an upper bound.
// Threads    One at a time. No lock. Nothing fails.
#pragma once

#include <algorithm>
#include <cstdint>

namespace rtls {

class unsent_count {
public:
    // The library holds so many messages at most.
    void library_holds(uint64_t messages) noexcept { m_most = messages; }

    // The library has taken a message.
    void handed_over() noexcept
    {
        ++m_handed_over;
        m_is_full = false;
    }
    // It had no room for one.
    void refused() noexcept { m_is_full = true; }
    // The link is up now, or was up until now.
    void is_up() noexcept { m_sent = m_handed_over; }
    // The link was up until now, and is not any more.
    void went_down() noexcept
    {
        is_up();
        if (m_is_full)
            m_sent -= std::min(m_most, m_handed_over - m_dropped);
    }
    // What it held is lost: how many.
    uint64_t take_lost() noexcept
    {
        const uint64_t lost = std::min(m_handed_over - m_sent, m_most);
        m_sent = m_dropped = m_handed_over;
        return lost;
    }

private:
    uint64_t m_handed_over = 0;
    uint64_t m_sent = 0;    // of these, at least
    uint64_t m_dropped = 0; // of these, none is in the queue: it has been lost since
    uint64_t m_most = UINT64_MAX;
    bool m_is_full = false; // as far as the last message knows
};

} // namespace rtls
