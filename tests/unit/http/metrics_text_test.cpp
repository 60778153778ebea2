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

TEST(metrics_text, the_format_is_the_one_that_is_wanted_most)
{
    constexpr auto open_metrics = metrics_format::open_metrics;
    constexpr auto prometheus = metrics_format::prometheus;
    const struct {
        const char* accept;
        metrics_format then;
    } cases[] = {
        {"", prometheus},
        {"*/*", prometheus},
        {"text/plain", prometheus},
        {"application/json", prometheus}, // neither: rather this than nothing
        {"application/openmetrics-text", open_metrics},
        {"application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;q=0.75,"
         "text/plain;version=0.0.4;q=0.5,*/*;q=0.1",
         open_metrics},
        {"application/openmetrics-text;version=1.0.0;escaping=allow-utf-8;q=0.6,"
         "text/plain;version=0.0.4;q=0.3,*/*;q=0.2",
         open_metrics},
        {"text/plain;version=0.0.4;q=0.5,application/openmetrics-text;q=0.4", prometheus},
        {"text/plain, application/openmetrics-text", open_metrics},
        {"text/plain, application/*", prometheus},
        {"application/openmetrics-text;q=0.5, */*", prometheus},
        // The most exact range decides, not the largest weight.
        {"text/plain;q=0, */*", open_metrics},
        {"*/*, text/plain;q=0", open_metrics},
        {"application/openmetrics-text;q=0.2, application/*;q=0.9, text/plain;q=0.5", prometheus},
        {"application/openmetrics-text;version=1.0.0;q=0, application/openmetrics-text, text/plain;q=0.1",
         prometheus},
        {"text/*;q=0.3, text/plain;q=0.9, application/openmetrics-text;q=0.5", prometheus},
        {"application/*", open_metrics},
        {"application/*;q=0.5, text/*;q=0.4", open_metrics},
        {"text/*;q=0, */*;q=0.1", open_metrics},
        {"*/*;q=0", prometheus},
        // Versions
        {"application/openmetrics-text;version=0.0.1", prometheus},
        {"application/openmetrics-text;version=\"1.0.0\"", open_metrics},
        {"application/openmetrics-text;version=\"1\\.0.0\"", open_metrics},
        {"application/openmetrics-text;version=\"0.0.1\"", prometheus},
        {"text/plain;version=1.0.0, application/openmetrics-text;q=0.1", open_metrics},
        {"text/plain;note=\"a, b; q=1\";q=0.2, application/openmetrics-text;q=0.3", open_metrics},
        // Any case, and blanks
        {"Application/OpenMetrics-Text;Version=1.0.0", open_metrics},
        {"TEXT/PLAIN;Q=0.1 , APPLICATION/OPENMETRICS-TEXT ; Q=0.9", open_metrics},
        {"\ttext/plain ;\tq=0.9,application/openmetrics-text;q=0.1", prometheus},
        // A range whose weight is none is left out.
        {"application/openmetrics-text;q=nan", prometheus},
        {"application/openmetrics-text;q=inf, text/plain;q=0.1", prometheus},
        {"application/openmetrics-text;q=5, text/plain;q=0.1", prometheus},
        {"application/openmetrics-text;q=-1, text/plain;q=0.1", prometheus},
        {"application/openmetrics-text;q=0.5x, text/plain;q=0.1", prometheus},
        {"application/openmetrics-text;q=, text/plain;q=0.1", prometheus},
        {"text/plain;q=nan, application/openmetrics-text;q=0.001", open_metrics},
        {"application/openmetrics-text;q=1.000, text/plain;q=0.999", open_metrics},
        // Nonsense
        {",;=,\"", prometheus},
        {"application/openmetrics-text;version=\"1.0.0", prometheus},
        {"application/openmetrics-text;\"", open_metrics},
    };
    for (const auto& c : cases)
        EXPECT_EQ(wanted_format(c.accept), c.then) << c.accept;
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
