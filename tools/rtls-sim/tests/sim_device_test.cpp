#include "rtls-sim/device.h"
#include "rtls-sim/report.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace sim {

static std::mt19937_64 any_random{3};

TEST(sim_device, sequence_numbers_skip_zero_and_never_repeat_in_a_row)
{
    device d;
    uint8_t last = 0;
    for (int i = 0; i < 1000; ++i) {
        const uint8_t seq = d.next_seq();
        EXPECT_NE(seq, 0);
        EXPECT_NE(seq, last);
        last = seq;
    }
}

TEST(sim_device, six_nodes_of_a_bridge_have_all_roles)
{
    std::set<unsigned> seen;
    for (unsigned node = 0; node <= 6; ++node)
        seen.insert(make_device(1, node, 50, any_random).signs.role);
    EXPECT_EQ(seen.size(), roles);
    EXPECT_TRUE(make_device(1, 0, 100, any_random).is_bridge());
}

TEST(sim_device, the_share_of_forwarded_nodes_is_kept)
{
    for (unsigned percent : {0U, 1U, 25U, 50U, 99U, 100U}) {
        unsigned forwarded = 0;
        for (unsigned node = 1; node <= 100; ++node)
            forwarded += make_device(1, node, percent, any_random).forwarded ? 1 : 0;
        EXPECT_EQ(forwarded, percent);
        EXPECT_FALSE(make_device(1, 0, percent, any_random).forwarded);
    }
}

// All reports of a thousand rounds: valid upstream, within the gateway's limits, none twice.
TEST(sim_device, every_report_is_good)
{
    report_maker maker{1, 1};
    std::vector<device> devices;
    for (unsigned node = 0; node <= 8; ++node)
        devices.push_back(make_device(1, node, 50, maker.random()));
    std::map<kind, unsigned> made;
    std::set<std::string> contents;
    for (int round = 0; round < 200; ++round)
        for (device& d : devices) {
            const kind k = maker.choose(d);
            ++made[k];
            if (k == kind::ping) {
                EXPECT_TRUE(d.is_bridge());
                EXPECT_GE(maker.make_ping_of(d).body.size(), 6U); // shorter ones cannot travel with a time
                continue;
            }
            const uplink_message report = maker.make(k, d, device_mac(1, 0), 1, 240);
            EXPECT_EQ(report.from, d.signs.mac);
            EXPECT_TRUE(contents.insert(report.content).second) << kind_name(k);
            EXPECT_TRUE(k != kind::root_announce || d.is_bridge());
            EXPECT_LE(report.body.size(), 5 + (k == kind::sensor ? 287U : 1037U));
            const bytes content{report.content.begin(), report.content.end()};
            const std::string line = R"(@win_management {"ts":1700000000,"ms":  7,)" + report.content + "}";
            const upstream_report read = report.to == outlet::handler
                                             ? read_handler_message(bytes(6), content)
                                             : read_management_line(line);
            EXPECT_TRUE(read.valid) << describe(read);
            EXPECT_EQ(read.kind, k);
        }
    for (kind k : {kind::ping, kind::root_announce, kind::heartbeat, kind::node_announce, kind::sensor,
                   kind::range, kind::ul_tdoa, kind::route, kind::generic})
        EXPECT_GT(made[k], 0U) << kind_name(k);
}

TEST(sim_device, the_same_seed_makes_the_same_network)
{
    const auto bodies = [](uint64_t seed) {
        report_maker maker{seed, 1};
        device d = make_device(1, 1, 0, maker.random());
        std::string all;
        for (int i = 0; i < 50; ++i)
            all += hex(maker.make(kind::route, d, device_mac(1, 0), 1, 240).body);
        return all;
    };
    EXPECT_EQ(bodies(5), bodies(5));
    EXPECT_NE(bodies(5), bodies(6));
}

} // namespace sim
