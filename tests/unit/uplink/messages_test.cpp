// The frame as a whole, pings, the time of generation, and a registry that has no node to give.
//
// Messages by kind: bridge_requests_test, heartbeats_test, envelopes_test, payloads_test.
#include "base/hex.h"
#include "registry/nodes_container.h"
#include "support/bridge_message_fixture.h"
#include "uplink/messages.h"
#include "wire/messaging.h"

#include <atomic>
#include <string>
#include <thread>
#include <utility>

namespace rtls {

using messages = bridge_message_fixture;

// --- the frame as a whole

TEST_F(messages, a_frame_without_a_message_is_refused)
{
    EXPECT_FALSE(process_data_from_win_client(server, bridge)); // it has no buffer yet
    for (const char* frame : {"", "00", "00 00", "04 01"})
        EXPECT_FALSE(receive(hex(frame))) << frame;
    EXPECT_TRUE(receive(hex("00 00 05"))); // three bytes are one
    EXPECT_EQ(replies(), texts_t{"000005"});
}

TEST_F(messages, types_that_need_no_action_are_accepted)
{
    const std::vector<const char*> frames[] = {
        // between the handled types, right behind them, a long way off
        {"05 01 01", "06 01 01", "0C 01 01", "15 01 01", "17 01 01", "18 01 01"},
        {"1A 01 01", "FF 00 01", "05 02 01"},
        {"00 08 01", "0D 08 01", "10 08 01", "FF 0F 01"},
        // bits that are no flags; a ping has no flags, nor has a timestamp envelope, which is no message itself
        {"04 41 01", "04 81 01", "FF FF 01"},
        {"00 10 01", "00 20 01", "00 30 01"},
        {"00 12 01", "00 22 01", "00 02 01 00 00 00 00 00 00 00 00 00 02 01 00 00 00"},
    };
    for (const auto& group : frames)
        for (const char* frame : group)
            EXPECT_TRUE(receive(hex(frame))) << frame;
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 0U);
    EXPECT_EQ(errors(), texts_t{});
}

TEST_F(messages, a_fixed_size_is_exact)
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

TEST_F(messages, a_ping_comes_back_as_it_came)
{
    for (const char* frame : {"00 00 07", "00 00 07 F5 F6 F7", "00 00 07 01 02 03 04 05 06 07 08"}) {
        EXPECT_TRUE(receive(hex(frame)));
        EXPECT_EQ(replies(), texts_t{to_hex(hex(frame))});
    }
    EXPECT_EQ(sent_to(other_bridge), texts_t{});
    EXPECT_EQ(node_count(), 0U);
    EXPECT_EQ(reports(), texts_t{});
}

TEST_F(messages, a_ping_of_any_size_comes_back)
{
    const bytes_t frame = hex("00 00 07") + ramp(70'000);
    EXPECT_TRUE(receive(frame));
    EXPECT_EQ(replies(), texts_t{to_hex(frame)});
}

TEST_F(messages, a_ping_comes_back_in_its_timestamp_envelope)
{
    const bytes_t frame = with_timestamp(hex("00 00 07 01 02 03"));
    EXPECT_TRUE(receive(frame));
    EXPECT_EQ(replies(), texts_t{to_hex(frame)});
}

TEST_F(messages, a_ping_is_printed_with_the_bridge_it_came_from)
{
    const bytes_t mac = hex(bridge_mac);
    server->clients.set_mac_addr(*bridge, mac.data());
    EXPECT_TRUE(receive(hex("00 00 A7")));
    EXPECT_EQ(lines("parsing"), texts_t{"SLIP: MSG_PING a7 MAC : ab:cd:ef:01:2a:bc:de:3f"});
}

// --- timestamp envelopes

TEST_F(messages, a_timestamp_envelope_needs_17_bytes)
{
    const bytes_t whole = with_timestamp(hex("FF 0F 01 02 03 04"));
    ASSERT_EQ(whole.size(), 17U);
    for (size_t size = 3; size < whole.size(); size++)
        EXPECT_FALSE(receive(slice(whole, 0, size))) << size;
    EXPECT_EQ(lines("parsing"), texts_t{});
    EXPECT_TRUE(receive(whole));
}

TEST_F(messages, a_timestamp_envelope_gives_the_time_of_generation)
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

TEST_F(messages, without_an_envelope_a_report_carries_the_time_of_reception)
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

TEST_F(messages, a_node_is_stamped_with_the_time_of_reception)
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

// --- a registry that has no node to give

TEST_F(messages, without_a_node_only_the_ack_is_sent_and_an_envelope_refused)
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

TEST_F(messages, an_operator_may_delete_the_node_at_any_moment)
{
    std::atomic<bool> done{false};
    std::thread terminal{[&] {
        while (!done) {
            const nodes_guard guard{*nodes};
            nodes_container_delete(nodes, hex(sender_mac).data());
        }
    }};
    server->rpl_timer_is_active = true;
    for (int i = 0; i < 1000; i++) {
        const auto seq = static_cast<uint8_t>(i);
        EXPECT_TRUE(receive(heartbeat({.type = 0x1104, .seq = seq})));
        EXPECT_TRUE(receive(envelope(payload_message(MSG_SENSOR_IND_NEW, seq, hex("AA BB")))));
        EXPECT_TRUE(receive(payload_message(MSG_GENERIC_SERVER_REQ, seq, hex("00 01 02")) + hex(sender_ip)));
        EXPECT_TRUE(receive(panid_req(seq, sender_mac)));
        EXPECT_EQ(replies().size(), 1U);
        (void)reports();
    }
    done = true;
    terminal.join();
}

} // namespace rtls
