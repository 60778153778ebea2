// http_refusals - whom the HTTP port has refused something, by why: counted, and the first of an episode said.
//
// Stands with the other doors', as the table of figures reads it, which the port's own layer is built upon.
// Ownership  A value.
// Threads    The door's; other threads may read the counts at any time. Nothing waits.
// Failures   None.
#pragma once

#include "base/counter.h"
#include "base/rate_bound.h"

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace rtls {

enum class http_refusal : uint8_t {
    descriptors,   // the last ones are kept for other things
    full,          // the most silent connection, which made room for a newcomer
    busy,          // a request, as too many wait
    malformed,     // ... as it is none of HTTP/1.1
    method,        // ... as it is neither GET nor HEAD
    too_long,      // ... as its head is
    token,         // ... without the right one
    timed_out,     // a connection that took too long for a head, or to take an answer
    out_of_memory, // a connection that there was none for
    kinds
};

class http_refusals {
public:
    // `who` was refused something, at `now_ms` of any monotonic clock. Logged (warning) when it begins an episode.
    void note(http_refusal why, in_addr who, int64_t now_ms) noexcept;
    // So many connections had to go at once, which has been logged.
    void note_out_of_memory(size_t connections) noexcept
    {
        m_counts[http_refusal::out_of_memory].add(connections);
    }

    const counters<http_refusal>& counts() const noexcept { return m_counts; }

private:
    counters<http_refusal> m_counts;
    std::array<refusal_episode, counters<http_refusal>::size> m_episodes;
};

} // namespace rtls
