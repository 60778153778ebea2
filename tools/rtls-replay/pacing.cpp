#include "rtls-replay/pacing.h"

#include <algorithm>

namespace replay {

static constexpr uint64_t small_step_ns = 1'000'000'000;
static constexpr pacing::seconds no_end{1e9}; // what a clock of nanoseconds still holds

std::chrono::nanoseconds pacing::due(uint64_t clock_ns)
{
    const uint64_t last_ns = m_last_ns.value_or(clock_ns);
    if (clock_ns >= last_ns) {
        const seconds pause{static_cast<double>(clock_ns - last_ns) / 1e9};
        if (pause > m_longest) {
            ++m_jumps.shortened;
            m_jumps.worst = std::max(m_jumps.worst, pause);
        }
        m_passed += std::min(pause, m_longest);
        m_last_ns = clock_ns;
    } else if (last_ns - clock_ns > small_step_ns) {
        ++m_jumps.back;
        m_last_ns = clock_ns;
    }
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::min(m_passed / m_speed, no_end));
}

} // namespace replay
