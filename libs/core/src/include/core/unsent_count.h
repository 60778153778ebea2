// unsent_count - how many messages the library holds of a link that is not up.
//
// A link that is connected again loses them: the library's queue belongs to the connection that it has given
// up. What it took while the link was up is not counted: of that, a server that takes messages has left next
// to nothing in the queue.
// Threads    One at a time. No lock.
#pragma once

#include <cstdint>

namespace rtls {

class unsent_count {
public:
    // The library has taken a message.
    void handed_over() noexcept { ++m_handed_over; }
    // The link is up now, or was up until now.
    void is_up() noexcept { m_sent = m_handed_over; }
    // What it held is lost: how many.
    uint64_t take_lost() noexcept
    {
        const uint64_t lost = m_handed_over - m_sent;
        m_sent = m_handed_over;
        return lost;
    }

private:
    uint64_t m_handed_over = 0;
    uint64_t m_sent = 0; // of these, at least
};

} // namespace rtls
