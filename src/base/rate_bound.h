// rate_bound - how many answers one address may have in a second, in bounded memory; and which refusal is
// said.
//
// Addresses are spread over a fixed number of counters by a hash that nobody outside can predict. Two that
// share a counter share its allowance: no address gets more than the bound, however many forged ones come
// between, and somebody else's flood costs an honest one its answers once in a thousand cases.
// Ownership  No memory beside its own 16 KiB.
// Threads    None of its own. Pure but for the seed: the clock is handed in. Nothing waits.
// Failures   None. Where the system has no randomness to give, the time since its start is the seed.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace rtls {

class rate_bound {
public:
    static constexpr unsigned int answers_a_second = 100;

    // A seed of chance.
    rate_bound() noexcept;
    // `seed` chooses which addresses share a counter.
    explicit constexpr rate_bound(uint64_t seed) noexcept : m_seed(seed) {}

    // Whether `address` may have an answer at `now_ms` (any monotonic clock that starts at 0 or later), which
    // is counted then. A second begins with the first answer after the one before has passed.
    bool allows(in_addr address, int64_t now_ms) noexcept
    {
        counter& of_address = m_counters[slot(address)];
        if (of_address.answers == 0 || now_ms - of_address.since_ms >= second_ms)
            of_address = {now_ms, 0};
        if (of_address.answers >= answers_a_second)
            return false;
        ++of_address.answers;
        return true;
    }

private:
    static constexpr int64_t second_ms = 1000;
    static constexpr unsigned int slot_bits = 10;

    struct counter {
        int64_t since_ms = 0; // begin of its second
        unsigned int answers = 0;
    };

    // A multiplication carries every bit of the address into the upper ones, which are taken.
    size_t slot(in_addr address) const noexcept
    {
        uint64_t mixed = (address.s_addr ^ m_seed) * 0x9E3779B97F4A7C15U;
        mixed = (mixed ^ mixed >> 32) * 0xD6E8FEB86659FD93U;
        return static_cast<size_t>(mixed >> (64 - slot_bits));
    }

    uint64_t m_seed;
    std::array<counter, size_t{1} << slot_bits> m_counters{};
};

// Refusals that follow each other make one episode, of which its first one is to be said.
class refusal_episode {
public:
    static constexpr int64_t quiet_ms = 10'000; // without a refusal end it

    // A refusal at `now_ms`: whether it begins an episode.
    bool begins(int64_t now_ms) noexcept
    {
        const bool is_first = !m_any || now_ms - m_last_ms >= quiet_ms;
        m_any = true;
        m_last_ms = now_ms;
        return is_first;
    }

private:
    bool m_any = false;
    int64_t m_last_ms = 0;
};

} // namespace rtls
