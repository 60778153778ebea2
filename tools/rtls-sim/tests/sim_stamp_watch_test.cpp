#include "rtls-sim/servers.h"

#include <gtest/gtest.h>

namespace sim {

static std::string first_line(const std::vector<uint64_t>& counters)
{
    stamp_watch watch;
    for (uint64_t counter : counters)
        watch.seen({0xABCD, counter, realtime_ns()});
    return watch.summary().at(0);
}

TEST(sim_stamp_watch, counts_what_is_lost_and_what_is_repeated)
{
    const struct {
        const char* given;
        std::vector<uint64_t> counters;
        const char* then;
    } cases[] = {
        {"in order", {1, 2, 3}, "stamped reports 3 (numbers 1 to 3), lost 0, repeated 0"},
        {"joined late", {7, 8}, "stamped reports 2 (numbers 7 to 8), lost 0, repeated 0"},
        {"a gap", {1, 4}, "stamped reports 2 (numbers 1 to 4), lost 2, repeated 0"},
        {"a gap filled", {1, 4, 2, 3}, "stamped reports 4 (numbers 1 to 4), lost 0, repeated 0"},
        {"the first overtaken", {4, 1, 3, 2}, "stamped reports 4 (numbers 1 to 4), lost 0, repeated 0"},
        {"repeated last", {1, 2, 2}, "stamped reports 3 (numbers 1 to 2), lost 0, repeated 1"},
        {"repeated first", {1, 2, 1}, "stamped reports 3 (numbers 1 to 2), lost 0, repeated 1"},
        {"repeated out of a gap", {1, 3, 2, 2}, "stamped reports 4 (numbers 1 to 3), lost 0, repeated 1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(first_line(c.counters), std::string{"run 0000ABCD: "} + c.then) << c.given;
}

TEST(sim_stamp_watch, tells_runs_apart)
{
    stamp_watch watch;
    EXPECT_TRUE(watch.summary().empty());
    watch.seen({1, 1, realtime_ns()});
    watch.seen({2, 1, realtime_ns()});
    EXPECT_EQ(watch.summary().size(), 3U);
}

} // namespace sim
