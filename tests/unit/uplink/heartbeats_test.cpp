// Heartbeats and node announcements, from nodes with a connection of their own.
#include "base/hex.h"
#include "support/bridge_message_fixture.h"
#include "uplink/messages.h"

#include <cstring>
#include <string>

namespace rtls {

using heartbeats = bridge_message_fixture;

static std::string seq_patched(std::string report, char seq)
{
    report[5] = seq;
    return report;
}

TEST_F(heartbeats, a_heartbeat_updates_its_node)
{
    EXPECT_TRUE(receive(heartbeat()));
    const auto known = node(sender_mac);
    ASSERT_TRUE(known);
    EXPECT_EQ(known->sw_version, 0x01020304U);
    EXPECT_EQ(known->type, NR_MOBILE);
    EXPECT_EQ(known->state, 0x50); // unshifted
    EXPECT_EQ(known->ranging_freq, 20);
    EXPECT_EQ(known->reporting_freq, 10);
    EXPECT_EQ(known->sublocation_id, 7);
    EXPECT_EQ(known->pos_X, 1234);
    EXPECT_EQ(known->pos_Y, -2);
    EXPECT_EQ(known->pos_Z, static_cast<int32_t>(0xFFFD1234));
    EXPECT_EQ(node_z_val(*known), 0x1234);
    EXPECT_EQ(node_z_offset(*known), -3);
    EXPECT_EQ(known->lifetime, 50);
    EXPECT_FALSE(known->forwarded_ip);
    EXPECT_FALSE(known->direct_mask);
    EXPECT_EQ(std::memcmp(known->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(std::memcmp(known->parent_addr, hex("B1 B2 B3 B4 B5 B6 B7 B8").data(), mac_size), 0);
    EXPECT_EQ(route_of(sender_mac), "0011223344");
    EXPECT_EQ(std::memcmp(bridge->mac_addr, hex(bridge_mac).data(), mac_size), 0);
}

TEST_F(heartbeats, a_heartbeat_goes_upstream_big_endian_and_without_its_address)
{
    EXPECT_TRUE(receive(heartbeat()));
    EXPECT_EQ(reports(), texts_t{heartbeat_report});
    ASSERT_EQ(heartbeat_report.size(), 2U * 47);
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(lines("parsing"),
              texts_t{"SLIP: MSG_HEARTBEAT_IND 0104 src:A7A8 seq:01 rf:10 rngf:20 role:52 sl:07 "
                      "par:B7B8 sw:01020304 xyz:1234;-2;4660 zoff:-3"});
}

TEST_F(heartbeats, a_node_announcement_is_a_heartbeat_of_another_type)
{
    EXPECT_TRUE(receive(heartbeat({.type = 0x310F, .seq = 0xAB})));
    std::string report = heartbeat_report;
    report.replace(0, 6, "010FAB");
    EXPECT_EQ(reports(), texts_t{report});
    EXPECT_EQ(node(sender_mac)->lifetime, 50);
    EXPECT_EQ(lines("parsing"),
              texts_t{"SLIP: MSG_NODE_ANNOUNCE_IND 010F src:A7A8 seq:AB rf:10 rngf:20 role:52 "
                      "sl:07 par:B7B8 sw:01020304 xyz:1234;-2;4660 zoff:-3"});
}

TEST_F(heartbeats, a_lifetime_is_five_reporting_periods)
{
    const struct {
        uint8_t reporting_freq;
        uint16_t then;
    } cases[] = {{0, 0}, {1, 5}, {60, 300}, {255, 1275}};
    uint8_t seq = 1;
    for (const auto& c : cases) {
        EXPECT_TRUE(receive(heartbeat({.seq = seq++, .reporting_freq = c.reporting_freq})));
        EXPECT_EQ(node(sender_mac)->lifetime, c.then);
    }
}

TEST_F(heartbeats, a_repeated_heartbeat_changes_nothing_but_is_acknowledged)
{
    for (const uint8_t seq : bytes_t{5, 5, 5})
        EXPECT_TRUE(receive(heartbeat({.type = 0x1104, .seq = seq})));
    const std::string ack = "100805" + to_hex(hex(sender_ip));
    EXPECT_EQ(replies(), (texts_t{ack, ack, ack}));
    EXPECT_EQ(reports(), (texts_t{seq_patched(heartbeat_report, '5'), seq_patched(heartbeat_report, '5')}));
    EXPECT_TRUE(receive(heartbeat({.seq = 5, .reporting_freq = 99})));
    EXPECT_EQ(node(sender_mac)->reporting_freq, 10);
    EXPECT_EQ(node(sender_mac)->lifetime, 50);
}

TEST_F(heartbeats, the_number_zero_is_a_repetition_from_the_second_time)
{
    for (int i = 0; i < 2; i++)
        EXPECT_TRUE(receive(heartbeat({.type = 0x1104, .seq = 0})));
    EXPECT_EQ(replies().size(), 2U);
    EXPECT_EQ(reports().size(), 1U);
}

TEST_F(heartbeats, an_ack_goes_to_the_bridge_that_asked)
{
    EXPECT_TRUE(receive(heartbeat({.type = 0x1104, .seq = 0xA9})));
    const texts_t acks = replies();
    EXPECT_EQ(acks, texts_t{"1008A9" + to_hex(hex(sender_ip))});
    EXPECT_EQ(acks[0].size(), 2U * 19);
    EXPECT_EQ(sent_to(other_bridge), texts_t{});
    EXPECT_EQ(reports().front().substr(0, 6), "0104A9");
    EXPECT_TRUE(receive(with_timestamp(heartbeat({.type = 0x1104, .seq = 0xAA}))));
    EXPECT_EQ(replies(), texts_t{"1008AA" + to_hex(hex(sender_ip))});
}

TEST_F(heartbeats, a_direct_message_does_not_touch_the_direct_mask)
{
    EXPECT_TRUE(receive(heartbeat({.type = 0x3104, .seq = 1})));
    EXPECT_FALSE(node(sender_mac)->direct_mask);
    EXPECT_EQ(replies().size(), 1U);
}

TEST_F(heartbeats, the_bridge_of_a_connection_is_the_one_last_named)
{
    const std::string none = "0000000000000000";
    const std::string shown = "abcdef012aBCDE3F"; // the last three bytes in upper case
    const struct {
        bytes_t message;
        std::string then;
    } cases[] = {
        {panid_req(1), "PANID_REQ " + none + " -> " + shown},
        {heartbeat({.seq = 1}), "HB " + none + " -> " + shown},
        {heartbeat({.type = 0x010F, .seq = 1}), "NA " + none + " -> " + shown},
    };
    for (const auto& c : cases) {
        const bytes_t zero(mac_size);
        server->clients.set_mac_addr(*bridge, zero.data());
        EXPECT_TRUE(receive(c.message));
        EXPECT_TRUE(receive(c.message)); // named again: no line
        EXPECT_EQ(lines("develop"), texts_t{"SLIP: Change connection MAC-address from " + c.then});
        EXPECT_EQ(std::memcmp(bridge->mac_addr, hex(bridge_mac).data(), mac_size), 0);
    }
    EXPECT_TRUE(receive(panid_req(9, "FA FB FC FD FE FF 0A 0B")));
    EXPECT_EQ(lines("develop"), texts_t{"SLIP: Change connection MAC-address from PANID_REQ " + shown +
                                        " -> fafbfcfdfeFF0A0B"});
}

} // namespace rtls
