// upstream_queue - the way into one of the library's queues towards a server upstream, and what waits for
// room in it.
//
// After a pause of this thread, or of the host, what the bridges have sent meanwhile comes in faster than the
// library carries it on. A server that takes messages must not lose any by that: what its full queue refuses
// waits here, in order, and the intake is paused (intake.h) until there is room. A wait is short, and rare in
// the long run: 50 ms at a time, half a second of waiting in store, a fifth of the time to fill it. So a
// server that is too slow for good loses messages, as one that is away does.
//
// Ownership  Owns what waits.
// Threads    WIN server thread.
// Blocking   Nothing waits: refusals come back at once.
// Failures   What is lost is counted, and said by overflow_watch. A message of which the library has taken the
//            first part only is lost: half of one never waits.
#pragma once

#include "base/counter.h"
#include "base/message_part.h"
#include "base/overflow_watch.h"
#include "core/unsent_count.h"

#include <cstddef>
#include <cstdint>
#include <deque>

namespace rtls {

// How much waiting is in store. Pure: the clock is handed in.
class wait_allowance {
public:
    static constexpr int64_t most_ms = 500;
    static constexpr int64_t earned_every_ms = 5; // one ms of waiting

    // Whether there is any at `now_ms`, of a monotonic clock.
    bool has_any(int64_t now_ms) noexcept
    {
        const int64_t earned = (now_ms - m_earned_until_ms) / earned_every_ms;
        if (earned >= most_ms) {
            m_ms = most_ms;
            m_earned_until_ms = now_ms;
        } else if (earned > 0) {
            m_ms = m_ms + earned < most_ms ? m_ms + earned : most_ms;
            m_earned_until_ms += earned * earned_every_ms;
        }
        return m_ms > 0;
    }
    void spend_ms(int64_t ms) noexcept { m_ms -= ms; }

private:
    int64_t m_ms = most_ms;
    int64_t m_earned_until_ms = 0;
};

// Why a message upstream is lost.
enum class upstream_loss : uint8_t { overflow, waited_in_vain, error, out_of_memory, kinds };

// Every message that was offered has been handed over, or lost, or waits. Any thread reads.
struct upstream_counters {
    counter at_once;        // handed over
    time_counts after_wait; // handed over, too
    level waiting;
    counters<upstream_loss> lost;
};

class upstream_queue {
public:
    static constexpr int patience_ms = 50;       // of one wait
    static constexpr size_t most_waiting = 8192; // messages: more than one read from a bridge can hold

    // The texts outlive the queue: those of overflow_watch, who sends, and the call that operators know
    // failures by.
    upstream_queue(const char* overflow, const char* exemption, const char* name, const char* function,
                   const char* call)
        : m_watch{overflow, exemption, name}, m_function(function), m_call(call)
    {
    }

    // Hands a message of one or two parts over to `socket`, and takes the parts in any case. With `may_wait`
    // what a full queue refuses waits; ask is_waiting().
    void send(void* socket, message_part& first, message_part* second, bool may_wait);

    // The same with a first part of a few bytes (inline_part_size), for which no part is made unless they wait.
    void send(void* socket, bytes_view first, message_part& second, bool may_wait);

    // A message could not even be made.
    void lose_unmade() { m_counts.lost[upstream_loss::out_of_memory].add(); }

    bool is_waiting() const { return !m_waiting.empty(); }
    // How long those have waited that wait.
    int has_waited_ms() const { return m_waited_ms; }
    // A millisecond of waiting is over: hands over what there is room for. Gives up the rest when the time
    // is.
    void retry(void* socket);
    // Loses what waits.
    void give_up();

    // For the link that the messages leave by.
    unsent_count& unsent() { return m_unsent; }
    overflow_watch& losses() { return m_watch; }

    // The queue will not be used any more: a last attempt, and what an overflow has cost until now is said.
    void stopping(void* socket);

    const upstream_counters& counts() const { return m_counts; }

private:
    struct message {
        message_part first;
        message_part second;
        bool has_second = false;
    };

    enum class handed : uint8_t { whole, nothing, a_part };

    handed send_whole(message_part& first, message_part* second, void* socket);
    void handed_whole();
    uint64_t drain(void* socket);
    void note_late(uint64_t number);
    void accepted();
    bool keep(message_part& first, message_part* second);
    void lose(upstream_loss cause);
    void lose_torn();
    int64_t now_ms();

    overflow_watch m_watch;
    unsent_count m_unsent;
    const char* m_function;
    const char* m_call;
    std::deque<message> m_waiting;
    int m_waited_ms = 0;         // by what waits now
    int64_t m_now_ms = 0;        // when the clock was last read
    int64_t m_waiting_since = 0; // by the same clock: the oldest of those that wait, or before
    wait_allowance m_allowance;
    upstream_counters m_counts;
};

} // namespace rtls
