// counter - figures that one thread writes and any other reads: counts, levels, and distributions of times.
//
// The names, helps, units and labels of all figures stand in the rows of metrics/, nowhere else.
// Threads    One writer for each figure: it loads and stores, without a locked instruction. Readers on any
//            thread see each figure whole, and a moment old; figures that are read one after the other belong
//            to slightly different moments.
// Failures   None. Nothing waits. A count that has used up its 64 bits starts again.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rtls {

class counter {
public:
    void add(uint64_t number = 1) noexcept
    {
        m_value.store(m_value.load(std::memory_order_relaxed) + number, std::memory_order_relaxed);
    }
    uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> m_value{0};
};

// One counter for each of an enumeration's values, of which `kinds` is the last one, and none itself.
template <typename Kind>
class counters {
public:
    static constexpr size_t size = static_cast<size_t>(Kind::kinds);

    counter& operator[](Kind kind) noexcept { return m_of[static_cast<size_t>(kind)]; }
    const counter& operator[](Kind kind) const noexcept { return m_of[static_cast<size_t>(kind)]; }
    uint64_t value(size_t kind) const noexcept { return m_of[kind].value(); }
    uint64_t sum() const noexcept
    {
        uint64_t all = 0;
        for (const counter& one : m_of)
            all += one.value();
        return all;
    }

private:
    std::array<counter, size> m_of;
};

// With several writers, for what is rare.
class shared_counter {
public:
    void add(uint64_t number = 1) noexcept { m_value.fetch_add(number, std::memory_order_relaxed); }
    uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> m_value{0};
};

// What is there now, such as messages that wait: goes up and down.
class level {
public:
    void set(uint64_t value) noexcept { m_value.store(value, std::memory_order_relaxed); }
    uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> m_value{0};
};

// How long something took: one counter for each range of times, and their sum.
class time_counts {
public:
    // The upper ends of the ranges, inclusive; what is longer falls into one more.
    static constexpr std::array<int64_t, 14> bounds_us = {50,      100,     250,       500,      1'000,
                                                          2'500,   5'000,   10'000,    25'000,   50'000,
                                                          100'000, 250'000, 1'000'000, 5'000'000};
    static constexpr size_t ranges = bounds_us.size() + 1;

    // `number` things took `us` each. A time below zero counts as none.
    void add(int64_t us, uint64_t number = 1) noexcept
    {
        size_t range = 0;
        while (range < bounds_us.size() && us > bounds_us[range])
            ++range;
        m_ranges[range].add(number);
        m_sum_us.add(us > 0 ? static_cast<uint64_t>(us) * number : 0);
    }
    uint64_t in_range(size_t range) const noexcept { return m_ranges[range].value(); }
    uint64_t sum_us() const noexcept { return m_sum_us.value(); }

private:
    std::array<counter, ranges> m_ranges;
    counter m_sum_us;
};

} // namespace rtls
