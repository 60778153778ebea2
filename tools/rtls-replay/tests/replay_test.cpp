#include "rtls-replay/pacing.h"

#include <gtest/gtest.h>

#include <vector>

namespace replay {

static constexpr uint64_t second = 1'000'000'000;
static constexpr uint64_t begin = 1'700'000'000 * second;

static std::vector<double> dues(pacing& paced, const std::vector<uint64_t>& clocks)
{
    std::vector<double> all;
    for (const uint64_t clock : clocks)
        all.push_back(std::chrono::duration<double>(paced.due(clock)).count());
    return all;
}

TEST(pacing, follows_the_clock_at_its_speed)
{
    pacing paced{4, pacing::seconds{3600}};
    EXPECT_EQ(dues(paced, {begin, begin + second, begin + 3 * second, begin + 3 * second}),
              (std::vector{0.0, 0.25, 0.75, 0.75}));
    EXPECT_EQ(paced.found().back + paced.found().shortened, 0u);
}

TEST(pacing, no_pause_is_longer_than_the_bound)
{
    pacing paced{1, pacing::seconds{60}};
    const uint64_t years = uint64_t{30'000} * 86'400 * second;
    EXPECT_EQ(dues(paced, {begin, begin + 60 * second, begin + years, begin + years + second, UINT64_MAX}),
              (std::vector{0.0, 60.0, 120.0, 121.0, 181.0}));
    EXPECT_EQ(paced.found().shortened, 2u);
    EXPECT_GT(paced.found().worst.count(), 2e9);
}

TEST(pacing, a_clock_that_is_set_back_goes_on_from_there)
{
    pacing paced{1, pacing::seconds{3600}};
    EXPECT_EQ(dues(paced, {begin, begin + 5 * second, begin - 100 * second, begin - 99 * second, 0, second}),
              (std::vector{0.0, 5.0, 5.0, 6.0, 6.0, 7.0}));
    EXPECT_EQ(paced.found().back, 2u);
}

TEST(pacing, a_small_step_back_costs_no_time)
{
    pacing paced{1, pacing::seconds{3600}};
    EXPECT_EQ(dues(paced, {begin + 2 * second, begin + second, begin + 3 * second}),
              (std::vector{0.0, 0.0, 1.0}));
    EXPECT_EQ(paced.found().back, 0u);
}

TEST(pacing, the_slowest_speed_overflows_nothing)
{
    pacing paced{0.001, pacing::seconds{1e6}};
    for (uint64_t i = 0; i < 1'000; ++i)
        EXPECT_GE(paced.due(i * 1'000'000 * second).count(), 0);
    EXPECT_EQ(paced.due(0).count(), 1'000'000'000 * int64_t{second});
}

} // namespace replay
