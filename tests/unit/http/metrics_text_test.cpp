#include "http/metrics_text.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string>

namespace rtls {

static constexpr metric losses{
    "things_lost_total", "Lost, by \"cause\".\nOr \\.", "", metric_type::counter, {"cause"}};
static constexpr metric age{"thing_age_seconds", "Age.", "seconds", metric_type::gauge, {}};
static constexpr metric times{"thing_seconds", "Times.", "seconds", metric_type::histogram, {"actor"}};

static std::string text_in(metrics_format format)
{
    metrics_text text{format};
    text.begin(losses);
    const label awkward{"cause", "a\"b\\c\nd"};
    text.sample({&awkward, 1}, 7);
    text.begin(age);
    text.sample({}, 0.25);
    text.begin(times);
    const label actor{"actor", "win"};
    const std::array bounds{0.0025, 1.0};
    const std::array<uint64_t, 3> buckets{1, 2, 5};
    text.times({&actor, 1}, {bounds, buckets, 12.5});
    return std::move(text).finish();
}

// The same in both formats.
static const std::string samples_of_times = R"(thing_seconds_bucket{actor="win",le="0.0025"} 1
thing_seconds_bucket{actor="win",le="1.0"} 2
thing_seconds_bucket{actor="win",le="+Inf"} 5
thing_seconds_sum{actor="win"} 12.5
thing_seconds_count{actor="win"} 5
)";

TEST(metrics_text, is_prometheus_text)
{
    EXPECT_EQ(text_in(metrics_format::prometheus), R"(# HELP things_lost_total Lost, by "cause".\nOr \\.
# TYPE things_lost_total counter
things_lost_total{cause="a\"b\\c\nd"} 7
# HELP thing_age_seconds Age.
# TYPE thing_age_seconds gauge
thing_age_seconds 0.25
# HELP thing_seconds Times.
# TYPE thing_seconds histogram
)" + samples_of_times);
}

TEST(metrics_text, is_open_metrics)
{
    EXPECT_EQ(text_in(metrics_format::open_metrics), R"(# HELP things_lost Lost, by \"cause\".\nOr \\.
# TYPE things_lost counter
things_lost_total{cause="a\"b\\c\nd"} 7
# HELP thing_age_seconds Age.
# TYPE thing_age_seconds gauge
# UNIT thing_age_seconds seconds
thing_age_seconds 0.25
# HELP thing_seconds Times.
# TYPE thing_seconds histogram
# UNIT thing_seconds seconds
)" + samples_of_times + "# EOF\n");
}

TEST(metrics_text, writes_numbers_that_are_read_back)
{
    for (const double value :
         {0.0, 1e-9, 0.1, 123456789.5, 9007199254740992.0, 1.8446744073709552e19, 1e300, -3.0}) {
        metrics_text text{metrics_format::prometheus};
        text.begin(age);
        text.sample({}, value);
        const std::string all = std::move(text).finish();
        const std::string line = all.substr(all.rfind('\n', all.size() - 2) + 1);
        EXPECT_EQ(std::stod(line.substr(line.find(' ') + 1)), value) << line;
    }
}

} // namespace rtls
