// actors_pulse - whether both actors' loops turn, as seen by somebody who asks them every second.
//
// Ownership  The gateway outlives it.
// Threads    ask(): one thread. The others: any.
// Blocking   Nothing waits.
// Failures   The constructor throws std::bad_alloc.
#pragma once

#include "services.h"
#include "watch/loop_pulse.h"

#include <cstdint>

namespace rtls {

class actors_pulse {
public:
    static constexpr int64_t longest_pause_ms = 3000;

    // About every second.
    void ask(services& gateway) noexcept;
    int64_t win_age_ms(int64_t now_ms) const noexcept { return m_win.age_ms(now_ms); }
    int64_t terminal_age_ms(int64_t now_ms) const noexcept { return m_terminal.age_ms(now_ms); }
    // Whether both have turned within three seconds. `now_ms`: of zclock_mono.
    bool is_beating(int64_t now_ms) const noexcept
    {
        return win_age_ms(now_ms) < longest_pause_ms && terminal_age_ms(now_ms) < longest_pause_ms;
    }

private:
    loop_pulse m_win;
    loop_pulse m_terminal;
};

} // namespace rtls
