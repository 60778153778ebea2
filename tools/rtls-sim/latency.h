// latency - times from sent to received, in a histogram of constant size with about 1 % resolution.
//
// Threads    One at a time. Nothing fails.
#pragma once

#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace sim {

class latency {
public:
    void add(std::chrono::nanoseconds time);
    uint64_t count() const { return m_count; }
    std::chrono::nanoseconds max() const { return m_max; }
    // The time within which `share` (0..1) of all lie, rounded up to the histogram's resolution.
    std::chrono::nanoseconds percentile(double share) const;
    // "p50 0.12 ms  p90 .. p99 .. p99.9 .. max .."
    std::string summary() const;

private:
    // A bucket is a power of two of nanoseconds and the next `sub_bits` bits below it.
    static constexpr unsigned sub_bits = 6;
    static constexpr size_t buckets = (64 - sub_bits + 1) << sub_bits;
    static size_t bucket_of(uint64_t ns);
    static uint64_t upper_end(size_t bucket);

    std::array<uint64_t, buckets> m_counts{};
    uint64_t m_count = 0;
    std::chrono::nanoseconds m_max{0};
};

} // namespace sim
