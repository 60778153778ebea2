// What bridges ask for and announce themselves.
#include "support/bridge_message_fixture.h"
#include "uplink/messages.h"

#include <cstring>

namespace rtls {

using bridge_requests = bridge_message_fixture;

// --- PANID requests

TEST_F(bridge_requests, a_panid_request_is_answered_to_all_bridges)
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
    EXPECT_EQ(std::memcmp(bridge->mac_addr, hex(bridge_mac).data(), mac_size), 0);
}

TEST_F(bridge_requests, a_panid_request_waits_for_the_running_timer)
{
    server->rpl_timer_is_active = true;
    EXPECT_TRUE(receive(panid_req(1)));
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_TRUE(server->unprocessed_MSG_PANID_REQ);
    EXPECT_EQ(node(bridge_mac)->lifetime, 300);
}

TEST_F(bridge_requests, a_repeated_panid_request_is_dropped)
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

TEST_F(bridge_requests, a_sequence_number_counts_for_all_types_of_a_node)
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

TEST_F(bridge_requests, a_root_announcement_goes_upstream_without_its_version)
{
    EXPECT_TRUE(receive(announce_root(0xA2)));
    EXPECT_EQ(reports(), texts_t{"0103A2ABCDEF012ABCDE3F1234"});
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(lines("parsing"),
              texts_t{"SLIP: MSG_ANNOUNCE_ROOT_IND: a2 PREF: 1234 VER: 241 MAC : ab:cd:ef:01:2a:bc:de:3f"});
    EXPECT_EQ(node(bridge_mac)->lifetime, 300);
    EXPECT_NE(node(bridge_mac)->last_activity.tv_sec, 0);
    EXPECT_EQ(route_of(bridge_mac), "0011223344");
    EXPECT_EQ(std::memcmp(bridge->mac_addr, hex("00 00 00 00 00 00 00 00").data(), mac_size), 0);
}

TEST_F(bridge_requests, a_flagged_root_announcement_goes_upstream_without_the_flags)
{
    bytes_t message = announce_root(1);
    message[1] |= 0x30;
    EXPECT_TRUE(receive(message));
    EXPECT_EQ(reports(), texts_t{"010301ABCDEF012ABCDE3F1234"});
    EXPECT_EQ(replies(), texts_t{}); // it names no address for an ack
}

TEST_F(bridge_requests, a_repeated_root_announcement_is_dropped)
{
    for (const uint8_t seq : bytes_t{3, 3, 3, 4, 4})
        EXPECT_TRUE(receive(announce_root(seq)));
    EXPECT_EQ(reports().size(), 3U); // the first of a new node is not compared
}

} // namespace rtls
