#include "rtls-sim/latency.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace sim {

size_t latency::bucket_of(uint64_t ns)
{
    if (ns < (uint64_t{1} << sub_bits))
        return ns;
    const auto shift = static_cast<unsigned>(std::bit_width(ns)) - 1 - sub_bits;
    return ((size_t{shift} + 1) << sub_bits) + ((ns >> shift) - (uint64_t{1} << sub_bits));
}

uint64_t latency::upper_end(size_t bucket)
{
    if (bucket < (size_t{1} << sub_bits))
        return bucket;
    const size_t shift = (bucket >> sub_bits) - 1;
    const size_t mantissa = (bucket & ((size_t{1} << sub_bits) - 1)) + (size_t{1} << sub_bits);
    return ((mantissa + 1) << shift) - 1;
}

void latency::add(std::chrono::nanoseconds time)
{
    time = std::max(time, std::chrono::nanoseconds{0}); // clocks of two processes may differ by a hair
    ++m_counts[bucket_of(static_cast<uint64_t>(time.count()))];
    ++m_count;
    m_max = std::max(m_max, time);
}

std::chrono::nanoseconds latency::percentile(double share) const
{
    const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(m_count)));
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < buckets; ++bucket) {
        seen += m_counts[bucket];
        if (seen >= wanted && seen > 0)
            return std::min(m_max, std::chrono::nanoseconds{upper_end(bucket)});
    }
    return m_max;
}

static double milliseconds(std::chrono::nanoseconds time)
{
    return static_cast<double>(time.count()) / 1e6;
}

std::string latency::summary() const
{
    if (m_count == 0)
        return "no samples";
    return fmt::format("p50 {:.3f} ms  p90 {:.3f} ms  p99 {:.3f} ms  p99.9 {:.3f} ms  max {:.3f} ms",
                       milliseconds(percentile(0.5)), milliseconds(percentile(0.9)),
                       milliseconds(percentile(0.99)), milliseconds(percentile(0.999)), milliseconds(m_max));
}

} // namespace sim
