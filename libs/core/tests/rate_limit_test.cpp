#include "impl/rate_limit.h"

#include <gtest/gtest.h>

#include <array>

using std::chrono::milliseconds;
using tav::libs::core::rate_limit;

namespace {

constexpr auto begin = rate_limit::time_point() + std::chrono::hours(1);
constexpr char flood[] = "flood";
constexpr char other[] = "other";

size_t admitted(rate_limit& limit, const void* kind, size_t lines, rate_limit::time_point now)
{
    size_t passed = 0;
    for (size_t i = 0; i < lines; ++i)
        passed += limit.admits(kind, now) ? 1 : 0;
    return passed;
}

TEST(rate_limit, a_thousand_lines_of_a_second_pass_whole)
{
    rate_limit limit;
    EXPECT_EQ(admitted(limit, flood, 1000, begin), 1000U);
    EXPECT_EQ(admitted(limit, flood, 1000, begin + milliseconds(999)), 0U);
    EXPECT_EQ(limit.end_of_second(), begin + milliseconds(1000));
}

TEST(rate_limit, every_second_begins_with_a_line)
{
    rate_limit limit;
    EXPECT_EQ(admitted(limit, flood, 1001, begin), 1000U);
    EXPECT_EQ(admitted(limit, flood, 1001, begin + milliseconds(1000)), 1000U);
    const auto later = begin + milliseconds(5500);
    EXPECT_EQ(admitted(limit, flood, 1001, later), 1000U);
    EXPECT_EQ(limit.end_of_second(), later + milliseconds(1000));
}

TEST(rate_limit, a_flood_does_not_hide_the_first_line_of_another_kind)
{
    rate_limit limit;
    (void)admitted(limit, flood, 5000, begin);
    EXPECT_TRUE(limit.admits(other, begin));
    EXPECT_FALSE(limit.admits(other, begin));
    EXPECT_FALSE(limit.admits(flood, begin));
    EXPECT_EQ(admitted(limit, other, 5000, begin + milliseconds(1000)), 1000U) << "and takes nothing away";
}

TEST(rate_limit, kinds_that_are_seen_in_time_count_as_others_do)
{
    rate_limit limit;
    EXPECT_TRUE(limit.admits(other, begin));
    EXPECT_EQ(admitted(limit, flood, 5000, begin), 999U);
    EXPECT_FALSE(limit.admits(other, begin)) << "not its first line";
}

TEST(rate_limit, more_kinds_than_it_can_tell_apart_pass_no_more)
{
    rate_limit limit;
    const std::array<char, 5000> kinds{};
    EXPECT_EQ(admitted(limit, flood, 1000, begin), 1000U);
    size_t passed = 0;
    for (const char& kind : kinds)
        passed += limit.admits(&kind, begin) ? 1 : 0;
    EXPECT_EQ(passed, rate_limit::kinds_each_second - 1);
}

} // namespace
