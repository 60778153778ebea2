// back_off - how long to wait before the next attempt to connect: twice as long each time, up to a bound, and not as
// long as all others who have lost the same broker at the same moment.
//
// Ownership  A value.
// Threads    One; pure.
// Failures   None.
#pragma once

#include <algorithm>
#include <chrono>

namespace mqtt {

class back_off {
public:
    using seconds = std::chrono::duration<double>;
    back_off(seconds first, seconds most) : m_first(first), m_most(std::max(first, most)), m_next(first) {}

    // `luck` from 0 to 1: how much of the last half of the time is left out.
    seconds next(double luck)
    {
        const seconds now = m_next;
        m_next = std::min(m_next * 2, m_most);
        return now * (1 - std::clamp(luck, 0.0, 1.0) / 2);
    }
    // It has succeeded.
    void reset() { m_next = m_first; }

private:
    seconds m_first;
    seconds m_most;
    seconds m_next;
};

} // namespace mqtt
