// actors_pulse - whether both actors' loops turn.
//
// Ownership  The gateway outlives it.
// Threads    Any.
// Blocking   Nothing waits.
// Failures   None.
#pragma once

#include "services.h"

#include <cstdint>

namespace rtls {

class actors_pulse {
public:
    static constexpr int64_t longest_pause_ms = 3000;

    explicit actors_pulse(const services& gateway) noexcept;

    // Milliseconds since the loop last turned; for one that does not run, since this was made. `now_ms`: of
    // zclock_mono.
    int64_t win_age_ms(int64_t now_ms) const noexcept;
    int64_t terminal_age_ms(int64_t now_ms) const noexcept;
    // Whether both have turned within three seconds.
    bool is_beating(int64_t now_ms) const noexcept
    {
        return win_age_ms(now_ms) < longest_pause_ms && terminal_age_ms(now_ms) < longest_pause_ms;
    }

private:
    const services& m_gateway;
    const int64_t m_made_ms;
};

} // namespace rtls
