// 15.4 envelopes: messages that came by way of other nodes.
#include "base/hex.h"
#include "support/bridge_message_fixture.h"
#include "uplink/messages.h"

#include <cstring>
#include <string>

namespace rtls {

using envelopes = bridge_message_fixture;

TEST_F(envelopes, an_envelope_registers_the_node_it_was_heard_from)
{
    EXPECT_TRUE(receive(envelope(hex("FF"))));
    const auto known = node(sender_mac);
    ASSERT_TRUE(known);
    EXPECT_EQ(known->lifetime, 300);
    EXPECT_NE(known->last_activity.tv_sec, 0);
    EXPECT_TRUE(known->forwarded_ip);
    EXPECT_FALSE(known->direct_mask);
    EXPECT_EQ(std::memcmp(known->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(route_of(sender_mac), "0011223344");
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(std::memcmp(bridge->mac_addr, hex("00 00 00 00 00 00 00 00").data(), mac_size), 0);
}

TEST_F(envelopes, an_envelope_has_exactly_its_size)
{
    for (const unsigned type : {0x0100U, 0x0A00U}) {
        const bytes_t whole = envelope(heartbeat_body({}), sender_mac, type);
        ASSERT_EQ(whole.size(), 68U);
        for (size_t size = 3; size < whole.size() + 5; size++) {
            if (size == whole.size())
                continue;
            bytes_t frame = whole;
            frame.resize(size);
            EXPECT_FALSE(receive(frame)) << size;
        }
        EXPECT_FALSE(receive(envelope({}, sender_mac, type))); // 29 bytes: nothing inside
        EXPECT_EQ(node_count(), 0U);
    }
    EXPECT_TRUE(receive(envelope(hex("FF")))); // 30 bytes
    EXPECT_EQ(node_count(), 1U);
}

TEST_F(envelopes, the_direct_mask_is_the_envelopes)
{
    for (const unsigned type : {0x2100U, 0x0100U, 0x3100U, 0x2A00U, 0x0A00U, 0x3A00U}) {
        EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, type)));
        EXPECT_EQ(node(sender_mac)->direct_mask, (type & 0x2000) != 0) << type;
    }
}

TEST_F(envelopes, a_forwarded_heartbeat_names_this_bridge)
{
    const bytes_t mac = hex(bridge_mac);
    server->clients.set_mac_addr(*bridge, mac.data());
    EXPECT_TRUE(receive(envelope(heartbeat_body({.seq = 1}))));
    EXPECT_EQ(reports(), texts_t{heartbeat_report}); // the bridge's MAC at its end
    EXPECT_TRUE(node(sender_mac)->forwarded_ip);
    EXPECT_EQ(node(sender_mac)->lifetime, 50);
    EXPECT_EQ(std::memcmp(node(sender_mac)->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(lines("develop"), texts_t{});
    EXPECT_EQ(node_count(), 1U);
}

TEST_F(envelopes, the_first_forwarded_message_numbered_zero_counts_as_repeated)
{
    // The envelope makes the node, whose last number is zero.
    EXPECT_TRUE(receive(envelope(heartbeat_body({.seq = 0}))));
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node(sender_mac)->lifetime, 300);
    EXPECT_TRUE(receive(envelope(heartbeat_body({.seq = 1}))));
    EXPECT_EQ(reports().size(), 1U);
}

TEST_F(envelopes, an_ack_is_asked_for_by_the_envelope_alone)
{
    const std::string ack = "100809" + to_hex(hex(sender_ip));
    const struct {
        const char* given;
        unsigned outer;
        unsigned inner;
        texts_t then;
        size_t reports;
    } cases[] = {
        {"envelope asks", 0x1100, 0x0104, {ack}, 1},
        {"message asks", 0x0100, 0x1104, {}, 1},
        {"both ask", 0x1100, 0x1104, {ack}, 1},
        {"the other flag inside", 0x1100, 0x2104, {}, 0}, // matches no type
        {"both flags inside", 0x1100, 0x3104, {}, 0},
    };
    uint8_t seq = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_TRUE(
            receive(envelope(heartbeat_body({.type = c.inner, .seq = seq++}), sender_mac, c.outer, 9)));
        EXPECT_EQ(replies(), c.then);
        const texts_t sent = reports();
        EXPECT_EQ(sent.size(), c.reports);
        if (!sent.empty()) {
            EXPECT_EQ(sent[0].substr(0, 4), "0104");
        }
    }
}

TEST_F(envelopes, a_transfer_through_another_client_leaves_the_route)
{
    EXPECT_TRUE(receive(heartbeat({.seq = 1})));
    ASSERT_EQ(route_of(sender_mac), "0011223344");
    for (uint8_t seq = 2; seq < 4; seq++)
        EXPECT_TRUE(receive(
            envelope(heartbeat_body({.seq = seq, .reporting_freq = 30}), sender_mac, 0x0A00, 9, other_ip),
            other_bridge));
    const auto known = node(sender_mac);
    EXPECT_EQ(route_of(sender_mac), "0011223344");
    EXPECT_FALSE(known->forwarded_ip);
    EXPECT_EQ(std::memcmp(known->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(known->lifetime, 150); // the rest is taken over
    EXPECT_EQ(reports().size(), 3U);

    EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, 0x0A00, 9, other_ip), other_bridge));
    EXPECT_EQ(node(sender_mac)->lifetime, 300);
    EXPECT_EQ(route_of(sender_mac), "0011223344");

    EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, 0x0100, 9, other_ip), other_bridge));
    EXPECT_EQ(route_of(sender_mac), "0011223355");
    EXPECT_EQ(std::memcmp(node(sender_mac)->ip_addr, hex(other_ip).data(), ip_addr_size), 0);
}

TEST_F(envelopes, a_node_known_only_through_other_clients_has_no_route)
{
    EXPECT_TRUE(receive(envelope(heartbeat_body({}), sender_mac, 0x0A00)));
    EXPECT_EQ(route_of(sender_mac), "");
    EXPECT_EQ(node(sender_mac)->lifetime, 50);
    EXPECT_FALSE(node(sender_mac)->forwarded_ip);
}

TEST_F(envelopes, requests_of_bridges_cannot_be_forwarded)
{
    // The trailer counts, so that their size is never right.
    EXPECT_FALSE(receive(envelope(panid_req(1), sender_mac, 0x1100)));
    EXPECT_FALSE(receive(envelope(announce_root(1), other_mac, 0x1100)));
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 2U); // what the envelopes say is known all the same
    EXPECT_FALSE(node(bridge_mac));
}

TEST_F(envelopes, an_envelope_in_an_envelope_is_no_message)
{
    EXPECT_TRUE(receive(envelope(envelope(heartbeat_body({}), other_mac))));
    EXPECT_TRUE(receive(envelope(with_timestamp(heartbeat_body({})))));
    EXPECT_TRUE(receive(envelope(hex("00 00 01")))); // nor is a ping
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 1U);
}

TEST_F(envelopes, a_timestamp_goes_around_an_envelope)
{
    EXPECT_TRUE(receive(with_timestamp(envelope(heartbeat_body({}), sender_mac, 0x1100))));
    EXPECT_EQ(times_of_reports(), texts_t{"6553F10001F4"});
    EXPECT_EQ(replies(), texts_t{"100809" + to_hex(hex(sender_ip))});
}

TEST_F(envelopes, a_message_of_a_byte_or_two_borrows_the_rest_from_the_trailer)
{
    // Type 0116 from one byte and the MAC's first; the length is then taken from the MAC as well.
    EXPECT_TRUE(receive(envelope(hex("16"), "01 05 00 00 A5 A6 A7 A8")));
    EXPECT_EQ(reports().size(), 1U);
    EXPECT_TRUE(receive(envelope(hex("16 01"), "05 00 00 A4 A5 A6 A7 A8")));
    EXPECT_EQ(reports().size(), 1U);
}

} // namespace rtls
