// outbox - what waits for the broker, up to a bound: beyond it the oldest are given up, as of a node's state the last
// one counts.
//
// Ownership  Owns what waits.
// Threads    One.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "rtls-mqtt/publications.h"

#include <cstdint>
#include <deque>

namespace mqtt {

class outbox {
public:
    // As many messages, of as many bytes of topics and payloads, as may wait.
    outbox(size_t most_messages, size_t most_bytes) : m_most_messages(most_messages), m_most_bytes(most_bytes)
    {
    }

    // One that alone is beyond the bound is lost itself.
    void push(publication it);
    bool is_empty() const { return m_waiting.empty(); }
    size_t size() const { return m_waiting.size(); }
    // The oldest. Not of an empty one.
    publication pop();
    // Given up so far.
    uint64_t lost() const { return m_lost; }

private:
    std::deque<publication> m_waiting;
    size_t m_most_messages;
    size_t m_most_bytes;
    size_t m_bytes = 0;
    uint64_t m_lost = 0;
};

} // namespace mqtt
