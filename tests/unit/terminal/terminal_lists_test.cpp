// What an operator's lists show: operators and bridges, and the nodes by their bridges.
#include "support/hex_bytes.h"
#include "support/terminal_command_fixture.h"
#include "terminal/reply.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

namespace rtls {

using terminal_lists_test = terminal_command_fixture;

TEST_F(terminal_lists_test, pcl_marks_the_one_who_asks)
{
    TERMINAL_CLIENT_t* other = add_operator("another", "10.0.0.2", 1002);
    other->subscribed = 1;
    other->grep_string = "abc";
    m_gateway.add_bridge("bridge", hex("0A 1B 2C 3D 4E 5F 60 71"), "10.0.0.3", 1003);
    EXPECT_THAT(rows_of("pcl"), testing::UnorderedElementsAre(
                                    "####### Terminal clients\n", "+ip:10.0.0.1:1001 sub:0 grep:--\n",
                                    " ip:10.0.0.2:1002 sub:1 grep:abc\n", "####### WIN clients:\n",
                                    " ip:10.0.0.3:1003\n", "##\n"));
    const texts_t lines = rows_of("PCL");
    EXPECT_EQ(lines.front(), "####### Terminal clients\n");
    EXPECT_EQ(lines[3], "####### WIN clients:\n");
    EXPECT_EQ(lines.back(), "##\n");
}

TEST_F(terminal_lists_test, pn_of_an_empty_registry)
{
    const texts_t titles{"####### Connected Nodes\n", "####### Floating nodes\n", "####### Expired nodes\n",
                         "##\n"};
    EXPECT_EQ(rows_of("pn"), titles);
    EXPECT_EQ(rows_of("pnf"), titles);
}

static std::string plain_line(const std::string& short_mac, const char* end = "  ", int ttl = 300)
{
    return text_format("%s und 00 par:00000 sw:00000000 rgf:  0 ttl:%3d sl:00 %s dtx: no\n",
                       short_mac.c_str(), ttl, end);
}

TEST_F(terminal_lists_test, pn_groups_nodes_by_bridge)
{
    m_gateway.add_bridge("bridge", hex("0A 1B 2C 3D 4E 5F 60 71"), "10.0.0.3", 1003);
    const bytes_t own_ip = hex("FE 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
    const auto with_own_ip = [&](NODE_t& node) { std::memcpy(node.ip_addr, own_ip.data(), own_ip.size()); };
    m_gateway.add_node(hex("00 00 00 00 00 00 00 01"), "bridge", with_own_ip);
    m_gateway.add_node(hex("00 00 00 00 00 00 00 02"), "bridge",
                       [](NODE_t& node) { node.forwarded_ip = true; });
    m_gateway.add_node(hex("00 00 00 00 00 00 00 03"), "gone");
    m_gateway.add_node(hex("00 00 00 00 00 00 00 04"), "bridge", [](NODE_t& node) { // its bridge lives
        node.lifetime = 0;
        node.last_activity.tv_sec = time(nullptr) - 3'600'000; // 1000 hours: no second matters
    });
    const texts_t lines = rows_of("pn");
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0], "####### Connected Nodes\n");
    EXPECT_EQ(lines[1], "Bridge MAC:0a1b2c3d4e5:f6071 ip4:10.0.0.3:1003\n");
    EXPECT_THAT(texts_t(lines.begin() + 2, lines.begin() + 4),
                testing::UnorderedElementsAre(plain_line("00001"), plain_line("00002", "FW")));
    EXPECT_EQ(lines[4], "####### Floating nodes\n");
    EXPECT_EQ(lines[5], plain_line("00003"));
    EXPECT_EQ(lines[6], "####### Expired nodes\n");
    EXPECT_TRUE(
        lines[7].starts_with("00004 und 00 par:00000 sw:00000000 rgf:  0 ttl:  0 sl:00    (1000:00:0"));
    EXPECT_EQ(lines[8], "##\n");
}

TEST_F(terminal_lists_test, pn_shows_each_node_once_among_three_bridges)
{
    for (const char* bridge : {"b1", "b2", "b3"}) {
        const auto last = static_cast<uint8_t>(bridge[1]);
        m_gateway.add_bridge(bridge, bytes_t{0, 0, 0, 0, 0, 0, 0, last}, "10.0.0.3", last);
        for (uint8_t i = 1; i <= 3; ++i)
            m_gateway.add_node(bytes_t{0, 0, 0, 0, 0, 0, last, i}, bridge,
                               [&](NODE_t& node) { node.ip_addr[0] = i; });
    }
    const texts_t lines = rows_of("pn");
    EXPECT_EQ(lines.size(), 1u + 3 * 4 + 3);
    std::string bridge;
    for (size_t i = 1; i < 13; ++i) {
        if (lines[i].starts_with("Bridge MAC:")) {
            bridge = lines[i].substr(lines[i].find(" ip4:") - 2, 2);
            continue;
        }
        EXPECT_EQ(lines[i].substr(1, 2), bridge) << lines[i];
        EXPECT_EQ(lines[i].find("duplicated"), std::string::npos);
    }
}

TEST_F(terminal_lists_test, pn_flags_duplicated_addresses)
{
    m_gateway.add_bridge("bridge", hex("0A 1B 2C 3D 4E 5F 60 71"), "10.0.0.3", 1003);
    for (uint8_t i = 1; i <= 2; ++i)
        m_gateway.add_node(bytes_t{0, 0, 0, 0, 0, 0, 0, i}, "bridge",
                           [](NODE_t& node) { node.ip_addr[0] = 0xFE; });
    const std::string text = answer_to("pn");
    EXPECT_NE(text.find(plain_line("00001", "   IP address is duplicated!")), std::string::npos) << text;
    EXPECT_NE(text.find(plain_line("00002", "   IP address is duplicated!")), std::string::npos) << text;
}

// The socket queues a thousand frames for an operator who reads slowly.
TEST_F(terminal_lists_test, long_listings_leave_many_rows_in_a_frame)
{
    constexpr size_t nodes = 1000;
    for (size_t i = 0; i < nodes; ++i)
        m_gateway.add_node(bytes_t{0, 0, 0, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
    for (const char* command : {"pn", "pnf"}) {
        const texts_t frames = answers_to(command);
        size_t rows = 0;
        for (const auto& frame : frames) {
            EXPECT_LE(frame.size(), 16'384u);
            EXPECT_EQ(frame.back(), '\n') << "a row is never cut";
            rows += static_cast<size_t>(std::count(frame.begin(), frame.end(), '\n'));
        }
        EXPECT_EQ(rows, nodes + 4);
        EXPECT_LT(frames.size(), nodes / 50);
        EXPECT_EQ(frames.front(), "####### Connected Nodes\n");
        EXPECT_TRUE(frames.back().ends_with("\n##\n"));
    }
}

} // namespace rtls
