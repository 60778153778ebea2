// descriptors - how many files the process may open, and the last of them, which connections do not get.
//
// The system gives each new descriptor the lowest number that is free. A connection whose number is among the
// last that the limit allows has therefore found all lower ones taken, by whomever: no counting is needed, and
// none can go wrong. When such a connection is closed again, its number serves what must not fail: the links
// to the servers, downloads, the log. With none left, the library would spin on accepting.
// Ownership  None.
// Threads    Any. Nothing waits.
// Failures   A limit that cannot be read counts as none.
#pragma once

#include "base/rate_bound.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rtls {

// What the daemon needs to start: its own sockets, and the reserve.
constexpr size_t descriptors_needed = 128;
constexpr size_t descriptors_reserved = 64;

// Raises the soft limit to the hard one, and returns what holds.
size_t raise_descriptor_limit() noexcept;

// Whether `fd` is one of the reserve.
bool is_reserved_descriptor(int fd) noexcept;

// Of one listening port: which connections have come too late. The owner closes them.
// Threads    The port's; other threads may read the count.
class full_house {
public:
    // `guests`: who comes by this port, for the log; a text that outlives it.
    explicit constexpr full_house(const char* guests) noexcept : m_guests(guests) {}

    // Whether the connection `fd` has one of the reserve. Counted; the first of an episode is logged.
    bool refuses(int fd, int64_t now_ms) noexcept;
    uint64_t refused() const noexcept { return m_refused.load(std::memory_order_relaxed); }

private:
    const char* m_guests;
    refusal_episode m_episode;
    std::atomic<uint64_t> m_refused{0};
};

} // namespace rtls
