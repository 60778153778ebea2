// loop_pulse - that an actor's loop turns, and how late its timers are.
//
// The loop's own periodic timer tells each of its runs. A loop that stands still, whatever holds it, lets its
// pulse grow old; a loop that is busy runs its timers late.
// Ownership  A value, the actor's.
// Threads    begin() and beat(): the loop's. The others: any. Nothing waits, nothing fails.
#pragma once

#include "base/counter.h"

#include <atomic>
#include <cstdint>

namespace rtls {

class loop_pulse {
public:
    static constexpr int64_t none = -1;

    // The timer, which runs every `period_ms` from now on, is set. Times are zclock_mono's.
    void begin(int64_t now_ms, int64_t period_ms) noexcept
    {
        m_period_ms = period_ms;
        m_due_ms = now_ms + period_ms;
        m_last_ms.store(now_ms, std::memory_order_relaxed);
    }
    // It runs. Runs that a stall has made late come in a row, as the loop has it: each is as late as it is.
    void beat(int64_t now_ms) noexcept
    {
        m_last_ms.store(now_ms, std::memory_order_relaxed);
        m_lateness.add((now_ms - m_due_ms) * 1000);
        m_due_ms += m_period_ms;
    }
    // The loop ends.
    void end() noexcept { m_last_ms.store(none, std::memory_order_relaxed); }

    // When the timer has last run, or has begun; none: the loop does not run.
    int64_t last_ms() const noexcept { return m_last_ms.load(std::memory_order_relaxed); }
    const time_counts& lateness() const noexcept { return m_lateness; }

private:
    int64_t m_period_ms = 0;
    int64_t m_due_ms = 0;
    std::atomic<int64_t> m_last_ms{none};
    time_counts m_lateness;
};

} // namespace rtls
