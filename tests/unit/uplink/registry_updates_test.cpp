// What each message from a bridge leaves in the registry: routes, lifetimes, marks and times. Commands take
// their way by it, and supervision keeps or closes a connection by it.
#include "base/hex.h"
#include "registry/nodes_container.h"
#include "support/bridge_message_fixture.h"
#include "wire/messaging.h"

#include <cstring>
#include <functional>

namespace rtls {

namespace {

constexpr char first_id[] = "0011223344";
constexpr char other_id[] = "0011223355";

int64_t milliseconds_of(tav_timestamp_t time)
{
    return time.seconds * 1000 + time.milliseconds;
}

class registry_updates : public bridge_message_fixture {
protected:
    registry_updates() { server->rpl_timer_is_active = true; } // PAN-ID requests only leave a note

    void change(const std::string& mac, const std::function<void(NODE_t&)>& change_node)
    {
        const nodes_guard guard{*nodes};
        change_node(*nodes_container_find_by_mac(nodes, hex(mac).data()));
    }
    std::string parent_of(const std::string& mac)
    {
        const nodes_guard guard{*nodes};
        return to_hex({nodes_container_find_by_mac(nodes, hex(mac).data())->parent_addr, mac_size});
    }
};

// A heartbeat's own 39 bytes in which every field differs from those of heartbeat_body.
bytes_t changed_heartbeat_body(unsigned type, uint8_t seq)
{
    return le16(type) + bytes_t{seq, 20} + hex("15 64 08") + hex(sender_mac) +
           hex("C1 C2 C3 C4 C5 C6 C7 C8  14 13 12 11  D3 04 00 00  FD FF FF FF  35 12 FC FF");
}

} // namespace

// A bridge that has come back on another connection is reached there, and counts as alive for its full
// time from now on: its commands would go nowhere, or its new connection would be closed as unwanted.
TEST_F(registry_updates, messages_of_a_bridge_itself_move_its_route_and_renew_its_lifetime)
{
    const struct {
        const char* given;
        bytes_t (*message)(uint8_t seq);
    } cases[] = {
        {"PAN-ID request", [](uint8_t seq) { return panid_req(seq); }},
        {"root announcement", [](uint8_t seq) { return announce_root(seq); }},
    };
    uint8_t seq = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_TRUE(receive(c.message(seq++), bridge));
        EXPECT_EQ(route_of(bridge_mac), first_id);
        for (const uint16_t lifetime : std::initializer_list<uint16_t>{0, 1, 299}) {
            change(bridge_mac, [=](NODE_t& node) { node.lifetime = lifetime; });
            EXPECT_TRUE(receive(c.message(seq++), other_bridge));
            EXPECT_EQ(node(bridge_mac)->lifetime, 300);
            EXPECT_EQ(route_of(bridge_mac), other_id);
            EXPECT_TRUE(receive(c.message(seq++), bridge));
            EXPECT_EQ(route_of(bridge_mac), first_id);
        }
    }
}

// The requests of a node that speaks for itself go down unwrapped; wrapped, it would not understand them.
TEST_F(registry_updates, a_direct_heartbeat_takes_the_forwarded_mark_away)
{
    for (const unsigned type : {0x0104U, 0x010FU}) {
        EXPECT_TRUE(receive(envelope(hex("FF"), sender_mac, 0x0100, 9, other_ip)));
        ASSERT_TRUE(node(sender_mac)->forwarded_ip);
        EXPECT_TRUE(receive(heartbeat({.type = type, .seq = static_cast<uint8_t>(type)})));
        EXPECT_FALSE(node(sender_mac)->forwarded_ip);
        EXPECT_EQ(std::memcmp(node(sender_mac)->ip_addr, hex(sender_ip).data(), ip_addr_size), 0);
    }
}

// Servers place a node by the bridge that heard it; the envelope's trailer stands where its MAC belongs.
TEST_F(registry_updates, a_forwarded_heartbeat_or_announcement_names_the_bridge_that_heard_it)
{
    const bytes_t mac = hex(bridge_mac);
    server->clients.set_mac_addr(*bridge, mac.data());
    for (const unsigned type : {0x0104U, 0x010FU})
        for (const unsigned outer : {0x0100U, 0x0A00U}) {
            const auto seq = static_cast<uint8_t>(type + outer / 0x100);
            EXPECT_TRUE(receive(envelope(heartbeat_body({.type = type, .seq = seq}), sender_mac, outer)));
            const texts_t sent = reports();
            ASSERT_EQ(sent.size(), 1U);
            EXPECT_EQ(sent[0].substr(2 * 39), to_hex(mac)) << type << ", " << outer;
        }
}

// Only the route belongs to who forwards it first-hand; what a node says of itself counts on any way.
TEST_F(registry_updates, a_transfer_through_another_client_updates_all_but_the_route)
{
    EXPECT_TRUE(receive(heartbeat({.seq = 1})));
    EXPECT_TRUE(
        receive(envelope(changed_heartbeat_body(0x0104, 2), sender_mac, 0x0A00, 9, other_ip), other_bridge));
    const auto known = node(sender_mac);
    EXPECT_EQ(known->sw_version, 0x11121314U);
    EXPECT_EQ(known->type, NR_BRIDGE);
    EXPECT_EQ(known->state, 0x60);
    EXPECT_EQ(known->ranging_freq, 0x15);
    EXPECT_EQ(known->reporting_freq, 20);
    EXPECT_EQ(known->sublocation_id, 8);
    EXPECT_EQ(known->pos_X, 1235);
    EXPECT_EQ(known->pos_Y, -3);
    EXPECT_EQ(known->pos_Z, static_cast<int32_t>(0xFFFC1235));
    EXPECT_EQ(known->lifetime, 100);
    EXPECT_EQ(parent_of(sender_mac), "C1C2C3C4C5C6C7C8");
    EXPECT_EQ(route_of(sender_mac), first_id);
}

// The request may be repeated, the connection it comes on need not be the same.
TEST_F(registry_updates, a_repeated_panid_request_still_names_its_bridge)
{
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(receive(panid_req(5), bridge));
    EXPECT_TRUE(receive(panid_req(5), other_bridge)); // dropped as a repetition, but
    EXPECT_EQ(to_hex({other_bridge->mac_addr, mac_size}), to_hex(hex(bridge_mac)));
}

// Bridges' clocks may be anywhere: "last heard" is our own time, for every kind of message.
TEST_F(registry_updates, activity_is_the_time_of_reception_whatever_the_envelope_says)
{
    introduce(sender_mac, sender_ip);
    const std::string mac = bridge_mac;
    const struct {
        const char* given;
        std::string mac;
        bytes_t message;
    } cases[] = {
        {"PAN-ID request", mac, panid_req(1)},
        {"root announcement", mac, announce_root(2)},
        {"heartbeat", sender_mac, heartbeat({.seq = 3})},
        {"envelope", sender_mac, envelope(hex("FF"))},
        {"sensor report", sender_mac, payload_message(MSG_SENSOR_IND_NEW, 4, hex("AA BB")) + hex(sender_ip)},
        {"generic request", sender_mac,
         payload_message(MSG_GENERIC_SERVER_REQ, 5, hex("00 01 02")) + hex(sender_ip)},
        {"forwarded report", sender_mac, envelope(payload_message(MSG_SENSOR_IND_NEW, 6, hex("AA BB")))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const int64_t before = milliseconds_of(get_current_time());
        EXPECT_TRUE(receive(with_timestamp(c.message, "00 00 00 01 00 00")));
        const int64_t after = milliseconds_of(get_current_time());
        const timeval stamp = node(c.mac)->last_activity;
        EXPECT_GE(stamp.tv_sec * 1000 + stamp.tv_usec / 1000, before);
        EXPECT_LE(stamp.tv_sec * 1000 + stamp.tv_usec / 1000, after);
    }
}

// How long a node counts as alive follows from its heartbeats and its envelopes; reports come in between.
TEST_F(registry_updates, a_report_leaves_its_senders_lifetime)
{
    introduce(sender_mac, sender_ip);
    const bytes_t report = payload_message(MSG_SENSOR_IND_NEW, 1, hex("AA BB"));
    const bytes_t request = payload_message(MSG_GENERIC_SERVER_REQ, 2, hex("00 01 02"));
    change(sender_mac, [](NODE_t& node) { node.lifetime = 7; });
    EXPECT_TRUE(receive(report + hex(sender_ip)));
    EXPECT_TRUE(receive(request + hex(sender_ip)));
    EXPECT_EQ(node(sender_mac)->lifetime, 7);
    EXPECT_TRUE(receive(envelope(report))); // the envelope itself does renew it
    EXPECT_EQ(node(sender_mac)->lifetime, 300);
    EXPECT_EQ(reports().size(), 3U);
}

// All lines of a frame carry the time at which it came, whatever happens in between and whenever the
// message itself was made.
TEST_F(registry_updates, debug_lines_of_a_frame_are_stamped_with_its_reception)
{
    (void)m_log.take();
    const auto date_of = [](const std::string& record) {
        const size_t date = record.find_first_not_of(' ', record.find(' '));
        return record.substr(date, sizeof "2024-05-01 13:07:02.045" - 1);
    };
    const auto date_now = [&] {
        (void)m_log.take();
        dbg_print(nullptr, DBG_PARSING, "TEST", "now");
        return date_of(m_log.take().at(0));
    };
    const std::string before = date_now();
    EXPECT_TRUE(receive(with_timestamp(heartbeat(), "00 00 00 01 00 00")));
    std::vector<std::string> records = m_log.take();
    const std::string after = date_now();
    std::erase_if(records, [](const std::string& record) {
        return record.find(":parsing ") == record.npos && record.find(":develop ") == record.npos;
    });
    ASSERT_EQ(records.size(), 3U); // the envelope, the bridge's MAC, the heartbeat
    for (const auto& record : records)
        EXPECT_EQ(date_of(record), date_of(records[0]));
    EXPECT_GE(date_of(records[0]), before);
    EXPECT_LE(date_of(records[0]), after);
}

TEST_F(registry_updates, a_wrapped_ping_goes_back_to_its_bridge_alone)
{
    EXPECT_TRUE(receive(with_timestamp(hex("00 00 07 01 02 03"))));
    EXPECT_EQ(replies().size(), 1U);
    EXPECT_EQ(sent_to(other_bridge), texts_t{});
}

} // namespace rtls
