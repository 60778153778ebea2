#include "terminal/listing.h"

#include "registry/nodes_container.h"
#include "server/win_server.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/processor_time.h"
#include "support/test_gateway.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace rtls {

static void set_bytes(uint8_t* to, const char* text)
{
    const bytes_t bytes = hex(text);
    std::memcpy(to, bytes.data(), bytes.size());
}

// A node with a different value in every field.
static node_row sample_node()
{
    node_row node{};
    node.last_activity = {1714568822, 45000}; // 2024-05-01 13:07:02.045 UTC
    node.bridge = no_bridge;
    node.sw_version = 0x0102A0FF;
    node.pos_X = 1234;
    node.pos_Y = -5678;
    node.z_val = 90;
    node.z_offset = -12;
    node.lifetime = 295;
    node.type = 0x41;
    node.state = 0x40;
    node.ranging_freq = 7;
    node.sublocation_id = 0x1C;
    set_bytes(node.mac_addr, "0A 1B 2C 3D 4E 5F 60 71");
    set_bytes(node.parent_addr, "81 92 A3 B4 C5 D6 E7 F8");
    set_bytes(node.ip_addr, "FE 80 00 00 00 00 00 00 E4 1B 2C 3D 4E 5F 60 71");
    return node;
}

struct node_line_case {
    const char* given;
    std::function<void(node_row&)> change;
    const char* standard;
    const char* full;
};

TEST(node_line, without_activity)
{
    const node_line_case cases[] = {
        {"a plain node", [](node_row&) {},
         "f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:  7 ttl:295 sl:1c    dtx: no\n",
         "0a1b2c3d4e5:f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:   7 ttl:295 sl:1c "
         "xyz:    1234,   -5678,      90:-120 ip:   fe80::e41b:2c3d:4e5f:6071 dtx: no\n"},
        {"forwarded", [](node_row& n) { n.forwarded_ip = true; },
         "f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:  7 ttl:295 sl:1c FW dtx: no\n",
         "0a1b2c3d4e5:f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:   7 ttl:295 sl:1c "
         "xyz:    1234,   -5678,      90:-120 ip:FW fe80::e41b:2c3d:4e5f:6071 dtx: no\n"},
        {"reached directly", [](node_row& n) { n.direct_mask = true; },
         "f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:  7 ttl:295 sl:1c    dtx:yes\n",
         "0a1b2c3d4e5:f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:   7 ttl:295 sl:1c "
         "xyz:    1234,   -5678,      90:-120 ip:   fe80::e41b:2c3d:4e5f:6071 dtx:yes\n"},
        {"a duplicated address", [](node_row& n) { n.address_duplicated = true; },
         "f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:  7 ttl:295 sl:1c    IP address is duplicated! dtx: no\n",
         "0a1b2c3d4e5:f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:   7 ttl:295 sl:1c "
         "xyz:    1234,   -5678,      90:-120 ip:   fe80::e41b:2c3d:4e5f:6071 IP address is duplicated! "
         "dtx: no\n"},
        {"numbers at their largest",
         [](node_row& n) {
             n.sw_version = 0xFFFFFFFF;
             n.pos_X = INT32_MIN;
             n.pos_Y = INT32_MAX;
             n.z_val = INT16_MIN;
             n.z_offset = INT16_MAX;
             n.lifetime = 65535;
             n.ranging_freq = 255;
             n.state = 0xF0;
             n.type = 0xFF;
             n.sublocation_id = 0xFF;
             std::memset(n.ip_addr, 0xFF, sizeof n.ip_addr);
         },
         "f6071 unk f0 par:6e7f8 sw:ffffffff rgf:255 ttl:65535 sl:ff    dtx: no\n",
         "0a1b2c3d4e5:f6071 unk f0 par:6e7f8 sw:ffffffff rgf: 255 ttl:65535 sl:ff "
         "xyz:-2147483648,2147483647,  -32768:327670 ip:   ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff dtx: "
         "no\n"},
        {"nothing known", [](node_row& n) { n = node_row{}; },
         "00000 und 00 par:00000 sw:00000000 rgf:  0 ttl:  0 sl:00    dtx: no\n",
         "00000000000:00000 und 00 par:00000 sw:00000000 rgf:   0 ttl:  0 sl:00 "
         "xyz:       0,       0,       0:0    ip:   :: dtx: no\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        node_row node = sample_node();
        c.change(node);
        EXPECT_EQ(node_line(node, false, nullptr), c.standard);
        EXPECT_EQ(node_line(node, true, nullptr), c.full);
    }
}

TEST(node_line, with_activity)
{
    const struct {
        const char* given;
        timeval now;
        const char* age;
    } cases[] = {
        {"the same moment", {1714568822, 45000}, "00:00:00"},
        {"a second less one microsecond", {1714568823, 44999}, "00:00:00"},
        {"a second", {1714568823, 45000}, "00:00:01"},
        {"an hour less a second", {1714568822 + 3599, 45000}, "00:59:59"},
        {"borrowed from an hour", {1714568822 + 3600, 0}, "00:59:59"},
        {"hours, minutes, seconds", {1714568822 + 7384, 45000}, "02:03:04"},
        {"more than a hundred hours", {1714568822 + 360000, 45000}, "100:00:00"},
        {"a clock set back", {1714568822 - 10, 45000}, "00:00:00"},
    };
    node_row node = sample_node();
    node.lifetime = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const std::string age = c.age;
        EXPECT_EQ(node_line(node, false, &c.now),
                  "f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:  7 ttl:  0 sl:1c    (" + age + ") dtx: no\n");
        EXPECT_EQ(node_line(node, true, &c.now),
                  "0a1b2c3d4e5:f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:   7 ttl:  0 sl:1c "
                  "xyz:    1234,   -5678,      90:-120 ip:   fe80::e41b:2c3d:4e5f:6071 "
                  "act:05-01 13:07:02 (" +
                      age + ") dtx: no\n");
    }
}

TEST(node_line, an_activity_beyond_the_calendar_has_no_date)
{
    node_row node = sample_node();
    node.last_activity.tv_sec = INT64_MIN / 2;
    const timeval now{0, 0};
    EXPECT_EQ(node_line(node, true, &now).find(" act:"), std::string::npos);
}

TEST(node_type, names_follow_the_low_four_bits)
{
    const char* const names[] = {"und", "fix", "m2d", "c p", "brg", "t2d", "sen"};
    for (unsigned type = 0; type < 256; ++type)
        EXPECT_STREQ(get_node_type(static_cast<uint8_t>(type)),
                     (type & 0x0F) < 7 ? names[type & 0x0F] : "unk")
            << type;
}

TEST(bridge_line, has_the_colon_inside_byte_five)
{
    const bytes_t mac = hex("0A 1B 2C 3D 4E 5F 60 71");
    EXPECT_EQ(bridge_line(mac.data(), ipv4_address("192.168.1.20", 40000)),
              "Bridge MAC:0a1b2c3d4e5:f6071 ip4:192.168.1.20:40000\n");
    const bytes_t none(8);
    EXPECT_EQ(bridge_line(none.data(), sockaddr_in{}), "Bridge MAC:00000000000:00000 ip4:0.0.0.0:0\n");
}

TEST(client_lines, show_peers)
{
    TERMINAL_CLIENT_t client{};
    client.client_addr = ipv4_address("10.1.2.3", 65535);
    EXPECT_EQ(terminal_client_line(client, false), " ip:10.1.2.3:65535 sub:0 grep:--\n");
    client.subscribed = 1;
    client.grep_string = "100%s";
    EXPECT_EQ(terminal_client_line(client, true), "+ip:10.1.2.3:65535 sub:1 grep:100%s\n");
    EXPECT_EQ(win_client_line(ipv4_address("10.1.2.4", 1)), " ip:10.1.2.4:1\n");
}

TEST(client_lines, a_long_pattern_is_shown_whole)
{
    TERMINAL_CLIENT_t client{};
    const std::string pattern(2000, 'x');
    client.grep_string = pattern;
    EXPECT_EQ(terminal_client_line(client, false), " ip:0.0.0.0:0 sub:0 grep:" + pattern + "\n");
}

// Nodes 0, 1, 2 ... with the given bridge and the last byte of the address.
struct address_case {
    uint32_t bridge;
    uint8_t address;
    bool forwarded = false;
    uint16_t lifetime = 1;
};

static std::vector<node_row> rows_of(const std::vector<address_case>& given)
{
    std::vector<node_row> rows(given.size());
    for (size_t i = 0; i < given.size(); ++i) {
        rows[i].bridge = given[i].bridge;
        rows[i].ip_addr[15] = given[i].address;
        rows[i].forwarded_ip = given[i].forwarded;
        rows[i].lifetime = given[i].lifetime;
        rows[i].mac_addr[7] = static_cast<uint8_t>(i);
    }
    return rows;
}

TEST(duplicate_addresses, are_flagged_within_a_bridge)
{
    const struct {
        const char* given;
        std::vector<address_case> nodes;
        std::string flagged; // by node
    } cases[] = {
        {"none", {}, ""},
        {"a single node", {{0, 1}}, "-"},
        {"two alike", {{0, 1}, {0, 1}}, "++"},
        {"three alike among others", {{0, 9}, {0, 1}, {0, 2}, {0, 1}, {0, 3}, {0, 1}}, "-+-+-+"},
        {"different bridges", {{0, 1}, {1, 1}}, "--"},
        {"two of each bridge", {{0, 1}, {1, 1}, {1, 1}, {0, 1}}, "++++"},
        {"one of them forwarded", {{0, 1}, {0, 1, true}}, "--"},
        {"a forwarded one beside two", {{0, 1}, {0, 1, true}, {0, 1}}, "+-+"},
        {"one of them expired", {{0, 1}, {0, 1, false, 0}}, "--"},
        {"without a bridge", {{no_bridge, 1}, {no_bridge, 1}}, "--"},
    };
    for (const auto& c : cases) {
        auto rows = rows_of(c.nodes);
        mark_duplicate_addresses(rows);
        std::string flagged;
        for (const auto& row : rows)
            flagged += row.address_duplicated ? '+' : '-';
        EXPECT_EQ(flagged, c.flagged) << c.given;
    }
}

TEST(duplicate_addresses, take_little_time_among_ten_thousand)
{
    std::vector<node_row> rows(10'000);
    for (size_t i = 0; i < rows.size(); ++i) {
        rows[i].bridge = 0;
        rows[i].lifetime = 1;
        std::memcpy(rows[i].ip_addr, &i, sizeof i);
    }
    std::memcpy(rows[9'999].ip_addr, rows[0].ip_addr, sizeof rows[0].ip_addr);
    const auto start = processor_time();
    mark_duplicate_addresses(rows);
    EXPECT_LT(processor_time() - start, std::chrono::milliseconds(500));
    EXPECT_TRUE(rows[0].address_duplicated);
    EXPECT_TRUE(rows[9'999].address_duplicated);
    EXPECT_FALSE(rows[1].address_duplicated);
}

TEST(node_groups, keep_the_order_of_the_table)
{
    const auto rows =
        rows_of({{1, 0}, {no_bridge, 1}, {0, 2, false, 0}, {1, 3}, {0, 4}, {no_bridge, 5, false, 0}});
    const node_groups groups = group_nodes(rows, 3);
    ASSERT_EQ(groups.by_bridge.size(), 3u);
    EXPECT_EQ(groups.by_bridge[0], (std::vector{&rows[4]}));
    EXPECT_EQ(groups.by_bridge[1], (std::vector{&rows[0], &rows[3]}));
    EXPECT_TRUE(groups.by_bridge[2].empty());
    EXPECT_EQ(groups.floating, (std::vector{&rows[1]}));
    EXPECT_EQ(groups.expired, (std::vector{&rows[2], &rows[5]}));
}

// --- With a registry

class snapshot_test : public testing::Test {
protected:
    log_capture m_log;
    test_gateway m_gateway;

    static win_client_info bridge(std::string_view id)
    {
        return {bridge_identity{{reinterpret_cast<const uint8_t*>(id.data()), id.size()}}, sockaddr_in{}, {}};
    }
};

TEST_F(snapshot_test, copies_every_field)
{
    m_gateway.add_node(hex("0A 1B 2C 3D 4E 5F 60 71"), "bridge two", [](NODE_t& node) {
        const node_row sample = sample_node();
        node.last_activity = sample.last_activity;
        node.sw_version = sample.sw_version;
        node.pos_X = sample.pos_X;
        node.pos_Y = sample.pos_Y;
        node.pos_Z = static_cast<int32_t>(0xFFF4005A);
        node.lifetime = sample.lifetime;
        node.type = sample.type;
        node.state = sample.state;
        node.ranging_freq = sample.ranging_freq;
        node.sublocation_id = sample.sublocation_id;
        std::memcpy(node.parent_addr, sample.parent_addr, sizeof node.parent_addr);
    });
    std::vector<win_client_info> bridges;
    bridges.push_back(bridge("bridge one"));
    bridges.push_back(bridge("bridge two"));

    const auto rows = copy_nodes(*m_gateway.nodes(), index_bridges(bridges));

    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].bridge, 1u);
    EXPECT_EQ(node_line(rows[0], true, nullptr),
              "0a1b2c3d4e5:f6071 fix 40 par:6e7f8 sw:0102a0ff rgf:   7 ttl:295 sl:1c "
              "xyz:    1234,   -5678,      90:-120 ip:   :: dtx: no\n");
    const timeval now{1714568823, 45000};
    EXPECT_NE(node_line(rows[0], true, &now).find(" act:05-01 13:07:02 (00:00:01) "), std::string::npos);
}

TEST_F(snapshot_test, tells_nodes_without_a_connected_bridge)
{
    m_gateway.add_node(hex("00 00 00 00 00 00 00 01"), "gone");
    m_gateway.add_node(hex("00 00 00 00 00 00 00 02"));
    m_gateway.add_node(hex("00 00 00 00 00 00 00 03"), "here");
    std::vector<win_client_info> bridges;
    bridges.push_back(bridge("here"));
    size_t found = 0;
    for (const auto& row : copy_nodes(*m_gateway.nodes(), index_bridges(bridges))) {
        EXPECT_EQ(row.bridge, row.mac_addr[7] == 3 ? 0 : no_bridge);
        ++found;
    }
    EXPECT_EQ(found, 3u);
}

TEST_F(snapshot_test, has_the_nodes_in_the_order_of_the_table)
{
    for (uint8_t i = 0; i < 100; ++i)
        m_gateway.add_node(ramp(8, static_cast<uint8_t>(i * 7)));
    std::vector<uint8_t> expected;
    {
        const nodes_guard guard{*m_gateway.nodes()};
        for (NODE_t* n = nodes_container_get_first(m_gateway.nodes()); n;
             n = nodes_container_get_next(m_gateway.nodes()))
            expected.push_back(n->mac_addr[7]);
    }
    std::vector<uint8_t> order;
    for (const auto& row : copy_nodes(*m_gateway.nodes(), {}))
        order.push_back(row.mac_addr[7]);
    EXPECT_EQ(order, expected);
    EXPECT_EQ(order.size(), 100u);
}

// The WIN server waits this long for its registry while somebody lists 100,000 nodes.
TEST_F(snapshot_test, of_100000_nodes_holds_the_lock_for_a_moment)
{
    for (uint32_t i = 0; i < 100'000; ++i) {
        bytes_t mac(8);
        std::memcpy(mac.data(), &i, sizeof i);
        m_gateway.add_node(mac, i % 2 != 0 ? "here" : "elsewhere");
    }
    std::vector<win_client_info> bridges;
    bridges.push_back(bridge("here"));
    const auto index = index_bridges(bridges);
    std::vector<node_row> rows(100'000);
    auto shortest = std::chrono::nanoseconds::max();
    for (int round = 0; round < 5; ++round) {
        auto& nodes = *m_gateway.nodes();
        const nodes_guard guard{nodes};
        const auto start = processor_time();
        copy_nodes_locked(nodes, index, rows);
        shortest = std::min(shortest, processor_time() - start);
    }
    EXPECT_EQ(rows.size(), 100'000u);
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(shortest).count();
    RecordProperty("lock_held_us", static_cast<int>(us));
    EXPECT_LT(us, 500'000); // generous: sanitizers run this, too
}

} // namespace rtls
