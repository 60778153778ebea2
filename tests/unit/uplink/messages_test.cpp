// Envelopes, pings, acks, and the messages of fixed size. Those with a payload: generic_server_req_test.
#include "base/hex.h"
#include "registry/nodes_container.h"
#include "support/bridge_message_fixture.h"
#include "uplink/messages.h"
#include "wire/messaging.h"

#include <atomic>
#include <cstring>
#include <thread>

namespace rtls {

using win_client_messages = bridge_message_fixture;

// The heartbeat of `heartbeat()` as the servers get it.
static const std::string heartbeat_report =
    digits("0104 01 0A145207 E4A2A3A4A5A6A7A8 B1B2B3B4B5B6B7B8 01020304") + // and the position,
    digits("000004D2 FFFFFFFE FFFD1234") + digits("ABCDEF012ABCDE3F");      // the bridge

static std::string seq_patched(std::string report, char seq)
{
    report[5] = seq;
    return report;
}

// --- the frame as a whole

TEST_F(win_client_messages, a_frame_without_a_message_is_refused)
{
    EXPECT_FALSE(process_data_from_win_client(server, bridge)); // it has no buffer yet
    for (const char* frame : {"", "00", "00 00", "04 01"})
        EXPECT_FALSE(receive(hex(frame))) << frame;
    EXPECT_TRUE(receive(hex("00 00 05"))); // three bytes are one
    EXPECT_EQ(replies(), texts_t{"000005"});
}

TEST_F(win_client_messages, types_that_need_no_action_are_accepted)
{
    for (const char* frame :
         {"05 01 01", // between the handled types
          "06 01 01",
          "0C 01 01",
          "15 01 01", // "
          "17 01 01",
          "18 01 01",
          "1A 01 01", // right behind them
          "FF 00 01",
          "05 02 01",
          "00 08 01", // a long way off
          "0D 08 01",
          "10 08 01",
          "FF 0F 01", // "
          "04 41 01",
          "04 81 01",
          "FF FF 01", // bits that are no flags
          "00 10 01",
          "00 20 01",
          "00 30 01", // a ping has no flags
          "00 12 01",
          "00 22 01",                                              // nor has a timestamp envelope
          "00 02 01 00 00 00 00 00 00 00 00 00 02 01 00 00 00"}) { // which is no message itself
        EXPECT_TRUE(receive(hex(frame))) << frame;
    }
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 0U);
    EXPECT_EQ(errors(), texts_t{});
}

TEST_F(win_client_messages, a_fixed_size_is_exact)
{
    const struct {
        const char* given;
        bytes_t message;
    } cases[] = {
        {"PANID request", panid_req(1)},
        {"root announcement", announce_root(1)},
        {"heartbeat", heartbeat()},
        {"node announcement", heartbeat({.type = 0x010F})},
    };
    for (const auto& c : cases)
        for (const size_t size : {size_t{3}, c.message.size() - 1, c.message.size() + 1, size_t{2000}}) {
            SCOPED_TRACE(testing::Message() << c.given << ", " << size << " bytes");
            bytes_t message = c.message;
            message.resize(size);
            message[1] |= 0x10; // it is not acknowledged, either
            EXPECT_FALSE(receive(message));
            EXPECT_EQ(replies(), texts_t{});
            EXPECT_EQ(reports(), texts_t{});
            EXPECT_EQ(node_count(), 0U);
        }
    for (const auto& c : cases)
        EXPECT_TRUE(receive(c.message)) << c.given;
}

// --- pings

TEST_F(win_client_messages, a_ping_comes_back_as_it_came)
{
    for (const char* frame : {"00 00 07", "00 00 07 F5 F6 F7", "00 00 07 01 02 03 04 05 06 07 08"}) {
        EXPECT_TRUE(receive(hex(frame)));
        EXPECT_EQ(replies(), texts_t{to_hex(hex(frame))});
    }
    EXPECT_EQ(sent_to(other_bridge), texts_t{});
    EXPECT_EQ(node_count(), 0U);
    EXPECT_EQ(reports(), texts_t{});
}

TEST_F(win_client_messages, a_ping_of_any_size_comes_back)
{
    const bytes_t frame = hex("00 00 07") + ramp(70'000);
    EXPECT_TRUE(receive(frame));
    EXPECT_EQ(replies(), texts_t{to_hex(frame)});
}

TEST_F(win_client_messages, a_ping_comes_back_in_its_timestamp_envelope)
{
    const bytes_t frame = with_timestamp(hex("00 00 07 01 02 03"));
    EXPECT_TRUE(receive(frame));
    EXPECT_EQ(replies(), texts_t{to_hex(frame)});
}

TEST_F(win_client_messages, a_ping_is_printed_with_the_bridge_it_came_from)
{
    const bytes_t mac = hex(bridge_mac);
    server->clients.set_mac_addr(*bridge, mac.data());
    EXPECT_TRUE(receive(hex("00 00 A7")));
    EXPECT_EQ(lines("parsing"), texts_t{"SLIP: MSG_PING a7 MAC : ab:cd:ef:01:2a:bc:de:3f"});
}

// --- timestamp envelopes

TEST_F(win_client_messages, a_timestamp_envelope_needs_17_bytes)
{
    const bytes_t whole = with_timestamp(hex("FF 0F 01 02 03 04"));
    ASSERT_EQ(whole.size(), 17U);
    for (size_t size = 3; size < whole.size(); size++)
        EXPECT_FALSE(receive(slice(whole, 0, size))) << size;
    EXPECT_EQ(lines("parsing"), texts_t{});
    EXPECT_TRUE(receive(whole));
}

TEST_F(win_client_messages, a_timestamp_envelope_gives_the_time_of_generation)
{
    const struct {
        const char* time;
        const char* then;
        const char* printed;
    } cases[] = {
        {"65 53 F1 00 80 00", "6553F10001F4",
         "SLIP: MSG_WRAP_TS timestamp seconds:1700000000 timestamp frac:32768 (500 milliseconds)"},
        {"00 00 00 00 00 00", "000000000000",
         "SLIP: MSG_WRAP_TS timestamp seconds:0 timestamp frac:0 (0 milliseconds)"},
        {"00 00 00 01 FF FF", "0000000103E7",
         "SLIP: MSG_WRAP_TS timestamp seconds:1 timestamp frac:65535 (999 milliseconds)"},
        {"00 00 00 01 00 41", "000000010000",
         "SLIP: MSG_WRAP_TS timestamp seconds:1 timestamp frac:65 (0 milliseconds)"},
        {"00 00 00 01 00 42", "000000010001",
         "SLIP: MSG_WRAP_TS timestamp seconds:1 timestamp frac:66 (1 milliseconds)"},
        {"FF FF FF FF 00 00", "FFFFFFFF0000",
         "SLIP: MSG_WRAP_TS timestamp seconds:-1 timestamp frac:0 (0 milliseconds)"},
    };
    uint8_t seq = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.time);
        EXPECT_TRUE(receive(with_timestamp(announce_root(seq++), c.time)));
        EXPECT_EQ(times_of_reports(), texts_t{c.then});
        EXPECT_EQ(lines("parsing").front(), c.printed);
    }
}

TEST_F(win_client_messages, without_an_envelope_a_report_carries_the_time_of_reception)
{
    const tav_timestamp_t before = get_current_time();
    EXPECT_TRUE(receive(announce_root(1)));
    const tav_timestamp_t after = get_current_time();
    const texts_t times = times_of_reports();
    ASSERT_EQ(times.size(), 1U);
    const bytes_t time = hex(times[0]);
    const int64_t sent = int64_t{load_be32(time, 0)} * 1000 + load_be16(time, 4);
    EXPECT_GE(sent, before.seconds * 1000 + before.milliseconds);
    EXPECT_LE(sent, after.seconds * 1000 + after.milliseconds);
}

TEST_F(win_client_messages, a_node_is_stamped_with_the_time_of_reception)
{
    const tav_timestamp_t before = get_current_time();
    EXPECT_TRUE(receive(with_timestamp(heartbeat(), "00 00 00 01 00 00")));
    const tav_timestamp_t after = get_current_time();
    const timeval stamp = node(sender_mac)->last_activity;
    EXPECT_EQ(stamp.tv_usec % 1000, 0);
    const int64_t milliseconds = stamp.tv_sec * 1000 + stamp.tv_usec / 1000;
    EXPECT_GE(milliseconds, before.seconds * 1000 + before.milliseconds);
    EXPECT_LE(milliseconds, after.seconds * 1000 + after.milliseconds);
}

// --- PANID requests

TEST_F(win_client_messages, a_panid_request_is_answered_to_all_bridges)
{
    EXPECT_TRUE(receive(panid_req(0xA1)));
    const texts_t answers = replies();
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].substr(0, 8), "02810100"); // and the next version
    EXPECT_EQ(answers[0].size(), 10U);
    EXPECT_EQ(sent_to(other_bridge), answers);
    EXPECT_TRUE(server->rpl_timer_is_active);
    EXPECT_FALSE(server->unprocessed_MSG_PANID_REQ);
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(lines("parsing"), texts_t{"SLIP: MSG_PANID_REQ a1 MAC : ab:cd:ef:01:2a:bc:de:3f"});

    ASSERT_TRUE(node(bridge_mac));
    EXPECT_EQ(node(bridge_mac)->lifetime, 300);
    EXPECT_NE(node(bridge_mac)->last_activity.tv_sec, 0);
    EXPECT_EQ(route_of(bridge_mac), "0011223344");
    EXPECT_EQ(memcmp(bridge->mac_addr, hex(bridge_mac).data(), mac_size), 0);
}

TEST_F(win_client_messages, a_panid_request_waits_for_the_running_timer)
{
    server->rpl_timer_is_active = true;
    EXPECT_TRUE(receive(panid_req(1)));
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_TRUE(server->unprocessed_MSG_PANID_REQ);
    EXPECT_EQ(node(bridge_mac)->lifetime, 300);
}

TEST_F(win_client_messages, a_repeated_panid_request_is_dropped)
{
    server->rpl_timer_is_active = true;
    EXPECT_TRUE(receive(panid_req(5))); // of a new node: the number is not remembered yet
    EXPECT_TRUE(receive(panid_req(5)));
    server->unprocessed_MSG_PANID_REQ = false;
    EXPECT_TRUE(receive(panid_req(5)));
    EXPECT_FALSE(server->unprocessed_MSG_PANID_REQ);
    EXPECT_TRUE(receive(panid_req(6)));
    EXPECT_TRUE(server->unprocessed_MSG_PANID_REQ);
}

TEST_F(win_client_messages, a_sequence_number_counts_for_all_types_of_a_node)
{
    server->rpl_timer_is_active = true;
    EXPECT_TRUE(receive(heartbeat({.seq = 4})));
    EXPECT_TRUE(receive(heartbeat({.seq = 5})));
    EXPECT_EQ(reports().size(), 2U);
    EXPECT_TRUE(receive(panid_req(5, sender_mac)));
    EXPECT_FALSE(server->unprocessed_MSG_PANID_REQ);
    EXPECT_TRUE(receive(announce_root(5, sender_mac)));
    EXPECT_EQ(reports(), texts_t{});
}

// --- root announcements

TEST_F(win_client_messages, a_root_announcement_goes_upstream_without_its_version)
{
    EXPECT_TRUE(receive(announce_root(0xA2)));
    EXPECT_EQ(reports(), texts_t{"0103A2ABCDEF012ABCDE3F1234"});
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(lines("parsing"),
              texts_t{"SLIP: MSG_ANNOUNCE_ROOT_IND: a2 PREF: 1234 VER: 241 MAC : ab:cd:ef:01:2a:bc:de:3f"});
    EXPECT_EQ(node(bridge_mac)->lifetime, 300);
    EXPECT_NE(node(bridge_mac)->last_activity.tv_sec, 0);
    EXPECT_EQ(route_of(bridge_mac), "0011223344");
    EXPECT_EQ(memcmp(bridge->mac_addr, hex("00 00 00 00 00 00 00 00").data(), mac_size), 0);
}

TEST_F(win_client_messages, a_flagged_root_announcement_goes_upstream_without_the_flags)
{
    bytes_t message = announce_root(1);
    message[1] |= 0x30;
    EXPECT_TRUE(receive(message));
    EXPECT_EQ(reports(), texts_t{"010301ABCDEF012ABCDE3F1234"});
    EXPECT_EQ(replies(), texts_t{}); // it names no address for an ack
}

TEST_F(win_client_messages, a_repeated_root_announcement_is_dropped)
{
    for (const uint8_t seq : bytes_t{3, 3, 3, 4, 4})
        EXPECT_TRUE(receive(announce_root(seq)));
    EXPECT_EQ(reports().size(), 3U); // the first of a new node is not compared
}

// --- heartbeats and node announcements

TEST_F(win_client_messages, a_heartbeat_updates_its_node)
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
    EXPECT_EQ(memcmp(known->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(memcmp(known->parent_addr, hex("B1 B2 B3 B4 B5 B6 B7 B8").data(), mac_size), 0);
    EXPECT_EQ(route_of(sender_mac), "0011223344");
    EXPECT_EQ(memcmp(bridge->mac_addr, hex(bridge_mac).data(), mac_size), 0);
}

TEST_F(win_client_messages, a_heartbeat_goes_upstream_big_endian_and_without_its_address)
{
    EXPECT_TRUE(receive(heartbeat()));
    EXPECT_EQ(reports(), texts_t{heartbeat_report});
    ASSERT_EQ(heartbeat_report.size(), 2U * 47);
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(lines("parsing"),
              texts_t{"SLIP: MSG_HEARTBEAT_IND 0104 src:A7A8 seq:01 rf:10 rngf:20 role:52 sl:07 "
                      "par:B7B8 sw:01020304 xyz:1234;-2;4660 zoff:-3"});
}

TEST_F(win_client_messages, a_node_announcement_is_a_heartbeat_of_another_type)
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

TEST_F(win_client_messages, a_lifetime_is_five_reporting_periods)
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

TEST_F(win_client_messages, a_repeated_heartbeat_changes_nothing_but_is_acknowledged)
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

TEST_F(win_client_messages, the_number_zero_is_a_repetition_from_the_second_time)
{
    for (int i = 0; i < 2; i++)
        EXPECT_TRUE(receive(heartbeat({.type = 0x1104, .seq = 0})));
    EXPECT_EQ(replies().size(), 2U);
    EXPECT_EQ(reports().size(), 1U);
}

TEST_F(win_client_messages, an_ack_goes_to_the_bridge_that_asked)
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

TEST_F(win_client_messages, a_direct_message_does_not_touch_the_direct_mask)
{
    EXPECT_TRUE(receive(heartbeat({.type = 0x3104, .seq = 1})));
    EXPECT_FALSE(node(sender_mac)->direct_mask);
    EXPECT_EQ(replies().size(), 1U);
}

TEST_F(win_client_messages, the_bridge_of_a_connection_is_the_one_last_named)
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
        EXPECT_EQ(memcmp(bridge->mac_addr, hex(bridge_mac).data(), mac_size), 0);
    }
    EXPECT_TRUE(receive(panid_req(9, "FA FB FC FD FE FF 0A 0B")));
    EXPECT_EQ(lines("develop"), texts_t{"SLIP: Change connection MAC-address from PANID_REQ " + shown +
                                        " -> fafbfcfdfeFF0A0B"});
}

// --- 15.4 envelopes

TEST_F(win_client_messages, an_envelope_registers_the_node_it_was_heard_from)
{
    EXPECT_TRUE(receive(envelope(hex("FF"))));
    const auto known = node(sender_mac);
    ASSERT_TRUE(known);
    EXPECT_EQ(known->lifetime, 300);
    EXPECT_NE(known->last_activity.tv_sec, 0);
    EXPECT_TRUE(known->forwarded_ip);
    EXPECT_FALSE(known->direct_mask);
    EXPECT_EQ(memcmp(known->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(route_of(sender_mac), "0011223344");
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(memcmp(bridge->mac_addr, hex("00 00 00 00 00 00 00 00").data(), mac_size), 0);
}

TEST_F(win_client_messages, an_envelope_has_exactly_its_size)
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

TEST_F(win_client_messages, the_direct_mask_is_the_envelopes)
{
    for (const unsigned type : {0x2100U, 0x0100U, 0x3100U, 0x2A00U, 0x0A00U, 0x3A00U}) {
        EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, type)));
        EXPECT_EQ(node(sender_mac)->direct_mask, (type & 0x2000) != 0) << type;
    }
}

TEST_F(win_client_messages, a_forwarded_heartbeat_names_this_bridge)
{
    const bytes_t mac = hex(bridge_mac);
    server->clients.set_mac_addr(*bridge, mac.data());
    EXPECT_TRUE(receive(envelope(heartbeat_body({.seq = 1}))));
    EXPECT_EQ(reports(), texts_t{heartbeat_report}); // the bridge's MAC at its end
    EXPECT_TRUE(node(sender_mac)->forwarded_ip);
    EXPECT_EQ(node(sender_mac)->lifetime, 50);
    EXPECT_EQ(memcmp(node(sender_mac)->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(lines("develop"), texts_t{});
    EXPECT_EQ(node_count(), 1U);
}

TEST_F(win_client_messages, the_first_forwarded_message_numbered_zero_counts_as_repeated)
{
    // The envelope makes the node, whose last number is zero.
    EXPECT_TRUE(receive(envelope(heartbeat_body({.seq = 0}))));
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node(sender_mac)->lifetime, 300);
    EXPECT_TRUE(receive(envelope(heartbeat_body({.seq = 1}))));
    EXPECT_EQ(reports().size(), 1U);
}

TEST_F(win_client_messages, an_ack_is_asked_for_by_the_envelope_alone)
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

TEST_F(win_client_messages, a_transfer_through_another_client_leaves_the_route)
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
    EXPECT_EQ(memcmp(known->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    EXPECT_EQ(known->lifetime, 150); // the rest is taken over
    EXPECT_EQ(reports().size(), 3U);

    EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, 0x0A00, 9, other_ip), other_bridge));
    EXPECT_EQ(node(sender_mac)->lifetime, 300);
    EXPECT_EQ(route_of(sender_mac), "0011223344");

    EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, 0x0100, 9, other_ip), other_bridge));
    EXPECT_EQ(route_of(sender_mac), "0011223355");
    EXPECT_EQ(memcmp(node(sender_mac)->ip_addr, hex(other_ip).data(), ip_addr_size), 0);
}

TEST_F(win_client_messages, a_node_known_only_through_other_clients_has_no_route)
{
    EXPECT_TRUE(receive(envelope(heartbeat_body({}), sender_mac, 0x0A00)));
    EXPECT_EQ(route_of(sender_mac), "");
    EXPECT_EQ(node(sender_mac)->lifetime, 50);
    EXPECT_FALSE(node(sender_mac)->forwarded_ip);
}

TEST_F(win_client_messages, requests_of_bridges_cannot_be_forwarded)
{
    // The trailer counts, so that their size is never right.
    EXPECT_FALSE(receive(envelope(panid_req(1), sender_mac, 0x1100)));
    EXPECT_FALSE(receive(envelope(announce_root(1), other_mac, 0x1100)));
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 2U); // what the envelopes say is known all the same
    EXPECT_FALSE(node(bridge_mac));
}

TEST_F(win_client_messages, an_envelope_in_an_envelope_is_no_message)
{
    EXPECT_TRUE(receive(envelope(envelope(heartbeat_body({}), other_mac))));
    EXPECT_TRUE(receive(envelope(with_timestamp(heartbeat_body({})))));
    EXPECT_TRUE(receive(envelope(hex("00 00 01")))); // nor is a ping
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 1U);
}

TEST_F(win_client_messages, a_timestamp_goes_around_an_envelope)
{
    EXPECT_TRUE(receive(with_timestamp(envelope(heartbeat_body({}), sender_mac, 0x1100))));
    EXPECT_EQ(times_of_reports(), texts_t{"6553F10001F4"});
    EXPECT_EQ(replies(), texts_t{"100809" + to_hex(hex(sender_ip))});
}

TEST_F(win_client_messages, a_message_of_a_byte_or_two_borrows_the_rest_from_the_trailer)
{
    // Type 0116 from one byte and the MAC's first; the length is then taken from the MAC as well.
    EXPECT_TRUE(receive(envelope(hex("16"), "01 05 00 00 A5 A6 A7 A8")));
    EXPECT_EQ(reports().size(), 1U);
    EXPECT_TRUE(receive(envelope(hex("16 01"), "05 00 00 A4 A5 A6 A7 A8")));
    EXPECT_EQ(reports().size(), 1U);
}

// --- a registry that has no node to give

TEST_F(win_client_messages, without_a_node_only_the_ack_is_sent_and_an_envelope_refused)
{
    const std::string address = to_hex(hex(sender_ip));
    const struct {
        const char* given;
        bytes_t frame;
        bool accepted;
        texts_t acks;
    } cases[] = {
        {"heartbeat", heartbeat({.type = 0x1104, .seq = 7}), true, {"100807" + address}},
        {"PANID request", panid_req(7), true, {}},
        {"root announcement", announce_root(7), true, {}},
        {"sensor report", payload_message(0x1116, 7, hex("AA")) + hex(sender_ip), true, {"100807" + address}},
        {"generic request",
         payload_message(0x110E, 7, hex("00 0A")) + hex(sender_ip),
         true,
         {"100807" + address}},
        {"envelope", envelope(heartbeat_body({}), sender_mac, 0x1100), false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        NODES_CONTAINER_t full{0};
        NODES_CONTAINER_t* usual = std::exchange(server->rtls_gateway->nodes, &full);
        const bool accepted = receive(c.frame);
        server->rtls_gateway->nodes = usual;
        EXPECT_EQ(accepted, c.accepted);
        EXPECT_EQ(replies(), c.acks);
        EXPECT_EQ(reports(), texts_t{});
        EXPECT_FALSE(server->rpl_timer_is_active);
        EXPECT_EQ(node_count(), 0U);
    }
}

// --- beside another thread

TEST_F(win_client_messages, an_operator_may_delete_the_node_at_any_moment)
{
    std::atomic<bool> done{false};
    std::thread terminal{[&] {
        while (!done) {
            const nodes_guard guard{nodes};
            nodes_container_delete(nodes, hex(sender_mac).data());
        }
    }};
    server->rpl_timer_is_active = true;
    for (int i = 0; i < 1000; i++) {
        const auto seq = static_cast<uint8_t>(i);
        EXPECT_TRUE(receive(heartbeat({.type = 0x1104, .seq = seq})));
        EXPECT_TRUE(receive(envelope(payload_message(0x0116, seq, hex("AA BB")))));
        EXPECT_TRUE(receive(payload_message(0x010E, seq, hex("00 01 02")) + hex(sender_ip)));
        EXPECT_TRUE(receive(panid_req(seq, sender_mac)));
        EXPECT_EQ(replies().size(), 1U);
        (void)reports();
    }
    done = true;
    terminal.join();
}

} // namespace rtls
