#include "link/rpl_version.h"

#include "support/hex_bytes.h"
#include "support/win_link.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rtls {

// The first of all here: the version is one for the process, and this is where it starts.
TEST(get_next_rpl_version, follows_the_lollipop_rule)
{
    for (int expected = 240; expected < 256; ++expected)
        ASSERT_EQ(get_next_rpl_version(), expected);
    for (int round = 0; round < 3; ++round)
        for (int expected = 0; expected < 128; ++expected)
            ASSERT_EQ(get_next_rpl_version(), expected);
}

TEST(rpl_version, goes_to_every_client_and_advances_each_time)
{
    const win_link link;
    auto bridges = link.connect_many(2);
    link.server().rpl_prefix = 0x1234;
    link.server().unprocessed_MSG_PANID_REQ = true;
    const uint8_t before = get_next_rpl_version();
    rpl_version_to_win_clients(&link.server());
    EXPECT_TRUE(link.server().rpl_timer_is_active);
    EXPECT_FALSE(link.server().unprocessed_MSG_PANID_REQ);
    const bytes_t version{static_cast<uint8_t>(before + 1)};
    for (auto& bridge : bridges)
        EXPECT_EQ(bridge.peer.receive(7), text_of(hex("F5 02 81 34 12") + version + hex("F7")));
    EXPECT_EQ(get_next_rpl_version(), before + 2);
}

TEST(rpl_version, advances_without_any_client)
{
    const win_link link;
    const uint8_t before = get_next_rpl_version();
    rpl_version_to_win_clients(&link.server());
    EXPECT_TRUE(link.server().rpl_timer_is_active);
    EXPECT_EQ(get_next_rpl_version(), before + 2);
}

TEST(rpl_timer, broadcasts_again_only_when_a_request_came_meanwhile)
{
    const win_link link;
    rpl_version_to_win_clients(&link.server());
    const uint8_t before = get_next_rpl_version();
    link.server().unprocessed_MSG_PANID_REQ = true;
    EXPECT_EQ(rpl_timer_handler(link.loop(), 1, &link.server()), 0);
    EXPECT_TRUE(link.server().rpl_timer_is_active);
    EXPECT_FALSE(link.server().unprocessed_MSG_PANID_REQ);
    EXPECT_EQ(rpl_timer_handler(link.loop(), 1, &link.server()), 0);
    EXPECT_FALSE(link.server().rpl_timer_is_active);
    EXPECT_EQ(get_next_rpl_version(), before + 2);
}

TEST(rpl_timer, runs_once_after_a_second)
{
    const win_link link;
    rpl_version_to_win_clients(&link.server());
    const auto poll = [](zloop_t*, int, void* p_server) {
        return static_cast<WIN_SERVER_t*>(p_server)->rpl_timer_is_active ? 0 : -1;
    };
    zloop_timer(link.loop(), 10, 0, poll, &link.server());
    const int64_t start = zclock_mono();
    zloop_start(link.loop());
    EXPECT_GE(zclock_mono() - start, 900);
    EXPECT_LT(zclock_mono() - start, 5000);
    EXPECT_FALSE(link.server().rpl_timer_is_active);
}

} // namespace rtls
