#include "impl/timestamp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>

using tav::libs::core::timestamp;

TEST(timestamp, is_written_in_utc)
{
    const struct {
        const char* given;
        long seconds;
        unsigned milliseconds;
        bool with_milliseconds;
        char separator;
        bool with_zone_mark;
        const char* then;
    } cases[] = {
        {"as the logger writes it", 1714568822, 45, true, ' ', false, "2024-05-01 13:07:02.045"},
        {"all of ISO 8601", 1714568822, 45, true, 'T', true, "2024-05-01T13:07:02.045Z"},
        {"seconds alone", 1714568822, 999, false, 'T', false, "2024-05-01T13:07:02"},
        {"seconds and zone", 1714568822, 45, false, ' ', true, "2024-05-01 13:07:02Z"},
        {"the epoch and 5 ms", 0, 5, true, ' ', false, "1970-01-01 00:00:00.005"},
        {"before the epoch", -1, 250, true, ' ', false, "1969-12-31 23:59:59.250"},
        {"milliseconds of more than a second", 0, 61'005, true, ' ', false, "1970-01-01 00:01:01.005"},
        {"the last second of 32 bits", UINT32_MAX, 999, true, ' ', false, "2106-02-07 06:28:15.999"},
    };
    ASSERT_EQ(setenv("TZ", "Asia/Tokyo", 1), 0);
    tzset();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(timestamp(c.seconds, c.milliseconds)
                      .to_iso_8601(c.with_milliseconds, c.separator, c.with_zone_mark),
                  c.then);
    }
}

TEST(timestamp, is_taken_apart_into_seconds_and_milliseconds)
{
    const struct {
        long seconds;
        long then_seconds;
        unsigned milliseconds;
        unsigned then_milliseconds;
    } cases[] = {
        {0, 0, 0, 0}, {1714568822, 1714568822, 45, 45}, {7, 7, 999, 999}, {7, 8, 1000, 0}, {-1, -1, 1, 1},
    };
    for (const auto& c : cases) {
        const timestamp time(c.seconds, c.milliseconds);
        EXPECT_EQ(time.get_ts(), c.then_seconds);
        EXPECT_EQ(time.get_ms(), c.then_milliseconds);
        EXPECT_EQ(time.get_time_since_epoch().count(), c.seconds * 1000 + c.milliseconds);
    }
}

TEST(timestamp, survives_seconds_that_milliseconds_cannot_count)
{
    for (const long seconds : {std::numeric_limits<long>::max(), std::numeric_limits<long>::min()})
        for (const unsigned milliseconds : {0U, std::numeric_limits<unsigned>::max()}) {
            const timestamp time(seconds, milliseconds);
            EXPECT_EQ(time.get_ts() > 0, seconds > 0);
            EXPECT_LT(time.get_ms(), 1000U);
            EXPECT_NO_FATAL_FAILURE((void)time.to_iso_8601(true, ' ', true));
        }
}

TEST(timestamp, current_time_is_the_real_time_clock)
{
    std::timespec before{};
    std::timespec after{};
    clock_gettime(CLOCK_REALTIME, &before);
    const timestamp now = timestamp::current_time();
    clock_gettime(CLOCK_REALTIME, &after);
    const auto count = [](const std::timespec& time) {
        return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
    };
    EXPECT_GE(now.get_time_since_epoch().count(), count(before));
    EXPECT_LE(now.get_time_since_epoch().count(), count(after));
}
