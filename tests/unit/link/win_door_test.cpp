#include "link/win_server_private.h"

#include "support/log_capture.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace rtls {

using testing::ElementsAre;

class win_door_test : public testing::Test {
protected:
    // A connection that gets no greeting, but its end.
    void expect_refused()
    {
        tcp_peer stranger{m_link.port()};
        std::string greeting;
        EXPECT_TRUE(m_link.pump_until([&] {
            (void)stranger.receive_more(greeting, std::chrono::milliseconds{1});
            return stranger.has_ended();
        }));
        EXPECT_EQ(greeting, "");
    }

    door_rules& rules() { return m_link.server().win_door.rules; }

    log_capture m_log;
    win_link m_link;
};

TEST_F(win_door_test, the_connection_beyond_the_last_is_closed_and_leaves_nothing)
{
    rules().most = 2;
    const win_link::linked_bridge first = m_link.connect();
    {
        const win_link::linked_bridge second = m_link.connect();
        expect_refused();
        expect_refused();
        EXPECT_EQ(m_link.clients(), 2U);
    }
    EXPECT_TRUE(m_link.pump_until([&] { return m_link.clients() == 1; }));
    const win_link::linked_bridge third = m_link.connect();
    EXPECT_EQ(m_link.clients(), 2U) << "a place that was left is free again";
    EXPECT_EQ(m_link.server().win_door.refused(door_refusal::full), 2U);
    EXPECT_THAT(m_log.messages("main"),
                ElementsAre("WIN port: 127.0.0.1 is refused, all connections are taken"));
}

TEST_F(win_door_test, one_address_holds_no_more_than_it_may)
{
    rules().most_of_one_address = 1;
    const win_link::linked_bridge first = m_link.connect();
    expect_refused();
    EXPECT_EQ(m_link.server().win_door.refused(door_refusal::address), 1U);
}

TEST_F(win_door_test, a_network_that_may_not_connect)
{
    rules().networks = parse_networks("10.0.0.0/8");
    expect_refused();
    EXPECT_EQ(m_link.clients(), 0U);
    rules().networks = parse_networks("10.0.0.0/8, 127.0.0.1");
    const win_link::linked_bridge bridge = m_link.connect();
    EXPECT_EQ(m_link.clients(), 1U);
}

} // namespace rtls
