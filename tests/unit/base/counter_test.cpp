#include "base/counter.h"
#include "base/loop_pulse.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

namespace rtls {

namespace {

enum class colour : uint8_t { red, green, kinds };

uint64_t all_of(const time_counts& counts)
{
    uint64_t all = 0;
    for (size_t range = 0; range < time_counts::ranges; ++range)
        all += counts.in_range(range);
    return all;
}

} // namespace

TEST(counter, counts_by_one_or_more)
{
    counter counted;
    EXPECT_EQ(counted.value(), 0U);
    counted.add();
    counted.add(41);
    EXPECT_EQ(counted.value(), 42U);
}

TEST(counter, another_thread_reads_what_was_counted_and_never_less_than_before)
{
    constexpr uint64_t last = 200'000;
    counter counted;
    std::thread reader{[&] {
        for (uint64_t seen = 0; seen < last;) {
            const uint64_t now = counted.value();
            ASSERT_GE(now, seen);
            seen = now;
        }
    }};
    for (uint64_t i = 0; i < last; ++i)
        counted.add();
    reader.join();
}

TEST(counters, are_one_for_each_kind)
{
    counters<colour> counted;
    counted[colour::green].add(3);
    counted[colour::red].add();
    EXPECT_EQ(counted.value(0), 1U);
    EXPECT_EQ(counted.value(1), 3U);
    EXPECT_EQ(counted.sum(), 4U);
}

TEST(shared_counter, loses_nothing_of_several_writers)
{
    shared_counter counted;
    const auto write = [&] {
        for (int i = 0; i < 50'000; ++i)
            counted.add();
    };
    std::thread other{write};
    write();
    other.join();
    EXPECT_EQ(counted.value(), 100'000U);
}

TEST(time_counts, the_upper_end_belongs_to_its_range)
{
    for (size_t range = 0; range < time_counts::bounds_us.size(); ++range) {
        time_counts counts;
        counts.add(time_counts::bounds_us[range]);
        counts.add(time_counts::bounds_us[range] + 1);
        EXPECT_EQ(counts.in_range(range), 1U) << range;
        EXPECT_EQ(counts.in_range(range + 1), 1U) << range;
    }
}

TEST(time_counts, sums_what_it_counts)
{
    time_counts counts;
    counts.add(70, 3);
    counts.add(60'000'000); // longer than all ranges
    counts.add(-5);         // a clock that went back
    EXPECT_EQ(counts.in_range(1), 3U);
    EXPECT_EQ(counts.in_range(time_counts::ranges - 1), 1U);
    EXPECT_EQ(counts.in_range(0), 1U);
    EXPECT_EQ(counts.sum_us(), 60'000'210U);
}

TEST(loop_pulse, is_there_while_the_loop_runs)
{
    loop_pulse pulse;
    EXPECT_EQ(pulse.last_ms(), loop_pulse::none);
    pulse.begin(5000, 1000);
    EXPECT_EQ(pulse.last_ms(), 5000);
    pulse.beat(6000);
    EXPECT_EQ(pulse.last_ms(), 6000);
    pulse.end();
    EXPECT_EQ(pulse.last_ms(), loop_pulse::none);
}

TEST(loop_pulse, each_run_is_as_late_as_it_is)
{
    loop_pulse pulse;
    pulse.begin(5000, 1000);
    pulse.beat(6000); // in time
    pulse.beat(9200); // a stall: due at 7000
    pulse.beat(9200); // at 8000
    pulse.beat(9201); // and at 9000
    EXPECT_EQ(all_of(pulse.lateness()), 4U);
    EXPECT_EQ(pulse.lateness().sum_us(), (2200U + 1200U + 201U) * 1000U);
}

} // namespace rtls
