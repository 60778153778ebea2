#include "net/link_watch.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "support/sock.h"
#include "support/tcp_listener.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <thread>
#include <vector>

namespace rtls {

using testing::ElementsAre;

// --- the endpoint

TEST(link_watch, tells_addresses_from_names)
{
    for (const char* endpoint : {"tcp://127.0.0.1:5555", "tcp://10.255.0.1:1", "tcp://0.0.0.0:65535"})
        EXPECT_TRUE(is_by_number(endpoint)) << endpoint;
    for (const char* endpoint :
         {"", "tcp://", "tcp://:5555", "tcp://localhost:5555", "tcp://10.0.0.1.site:5555",
          "tcp://10.0.0:5555", "tcp://10.0.0.1", "tcp://[::1]:5555", "tcp://eth0;10.0.0.1:5555",
          "ipc:///10.0.0.1:5555", "10.0.0.1:1"})
        EXPECT_FALSE(is_by_number(endpoint)) << endpoint;
}

// --- the record

namespace {

constexpr int trying = ZMQ_EVENT_CONNECT_DELAYED;
constexpr int connected = ZMQ_EVENT_CONNECTED;
constexpr int done = ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
constexpr int broken_off = ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL;
constexpr int nonsense = ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL;
constexpr int lost = ZMQ_EVENT_DISCONNECTED;
constexpr int unanswered = ZMQ_EVENT_CLOSED;
constexpr int again = ZMQ_EVENT_CONNECT_RETRIED;

struct link_story {
    const char* given;
    std::vector<int> events; // one a millisecond, the first at 1
    bool is_up = false;
    bool is_reached = false;
    bool is_given_up = false;
    int64_t since_ms = 0;
    uint64_t connections = 0;
    uint64_t failures = 0;
    const char* reason = "";
};

const link_story stories[] = {
    {.given = "nothing yet", .events = {}},
    {.given = "a server",
     .events = {trying, connected, done},
     .is_up = true,
     .is_reached = true,
     .since_ms = 3,
     .connections = 1},
    {.given = "nobody", .events = {trying, unanswered, again, trying}, .reason = "nobody answers"},
    {.given = "one that says nothing", .events = {trying, connected}, .is_reached = true},
    {.given = "one that left",
     .events = {trying, connected, done, lost, again},
     .since_ms = 4,
     .connections = 1,
     .failures = 1,
     .reason = "the connection was lost"},
    {.given = "one that came back",
     .events = {connected, done, lost, again, trying, connected, done},
     .is_up = true,
     .is_reached = true,
     .since_ms = 7,
     .connections = 2,
     .failures = 1,
     .reason = "the connection was lost"},
    {.given = "one that closes",
     .events = {connected, broken_off, lost, again, trying},
     .failures = 1,
     .reason = "the peer broke off the handshake"},
    {.given = "nonsense",
     .events = {connected, nonsense, lost},
     .is_given_up = true,
     .failures = 1,
     .reason = "the peer speaks another protocol"},
    {.given = "another kind of socket",
     .events = {connected, lost},
     .is_given_up = true,
     .failures = 1,
     .reason = "the peer is another kind of socket"},
    {.given = "a refusal",
     .events = {connected, ZMQ_EVENT_HANDSHAKE_FAILED_AUTH},
     .is_given_up = true,
     .failures = 1,
     .reason = "the peer refused us"},
    {.given = "our own new attempt", .events = {connected, done, trying}, .since_ms = 3, .connections = 1},
};

} // namespace

TEST(link_record, knows_what_has_become_of_a_link)
{
    for (const auto& c : stories) {
        SCOPED_TRACE(c.given);
        link_record record;
        int64_t now = 0;
        for (const int event : c.events)
            record.note(event, ++now);
        const link_state state = record.state();
        EXPECT_EQ(state.is_up, c.is_up);
        EXPECT_EQ(record.is_reached(), c.is_reached);
        EXPECT_EQ(record.is_given_up(), c.is_given_up);
        EXPECT_EQ(state.since_ms, c.since_ms);
        EXPECT_EQ(state.connections, c.connections);
        EXPECT_EQ(state.failures, c.failures);
        EXPECT_STREQ(state.last_reason, c.reason);
    }
}

TEST(link_record, the_pause_doubles_to_five_seconds_until_a_handshake_is_done)
{
    link_record record;
    std::vector<int> pauses;
    for (int i = 0; i < 8; ++i) {
        record.note(connected, 1);
        record.note(nonsense, 1);
        pauses.push_back(record.pause_ms());
        record.mended();
        EXPECT_FALSE(record.is_given_up());
    }
    EXPECT_THAT(pauses, ElementsAre(100, 200, 400, 800, 1600, 3200, 5000, 5000));
    record.note(done, 1);
    EXPECT_EQ(record.pause_ms(), 100);
}

TEST(link_record, a_failure_is_to_be_said_once_until_a_handshake_is_done)
{
    link_record record;
    for (int i = 0; i < 2; ++i) {
        EXPECT_STREQ(record.note(nonsense, 1), "the peer speaks another protocol");
        EXPECT_EQ(record.note(broken_off, 1), nullptr);
        EXPECT_EQ(record.note(done, 1), nullptr);
    }
}

// --- in a loop

TEST(link_watch, a_server_that_answered_nonsense_is_given_another_chance)
{
    log_capture log;
    zsock_ptr wrong{zsock_new(ZMQ_REP)};
    const int port = zsock_bind(wrong.get(), "tcp://127.0.0.1:*");
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    const zsock_ptr sender{zsock_new(ZMQ_PUSH)};
    const zloop_ptr loop{zloop_new()};
    link_watch link{"some server"};
    link.open(sender.get(), endpoint, io_thread_of_handler);
    ASSERT_TRUE(link.join(loop.get()));
    ASSERT_EQ(zsock_connect(sender.get(), "%s", endpoint.c_str()), 0);
    ASSERT_TRUE(run_until(loop.get(), [&] { return link.state().failures >= 2; }));
    EXPECT_FALSE(link.state().is_up);
    EXPECT_THAT(log.messages("main"),
                ElementsAre(testing::AllOf(testing::StartsWith("some server: the peer "),
                                           testing::EndsWith(", connecting again"))));

    wrong.reset();
    const zsock_ptr right{zsock_new(ZMQ_PULL)};
    ASSERT_TRUE(wait_until([&] { return zsock_bind(right.get(), "%s", endpoint.c_str()) == port; }));
    ASSERT_TRUE(run_until(loop.get(), [&] { return link.state().is_up; }));
    EXPECT_EQ(link.state().connections, 1U);
    EXPECT_EQ(zstr_send(sender.get(), "a message"), 0);
    EXPECT_STREQ(zstr_ptr{zstr_recv(right.get())}.get(), "a message");
    link.close();
}

TEST(link_watch, counts_what_is_lost_by_connecting_again)
{
    for (const bool is_overflowing : {false, true}) {
        SCOPED_TRACE(is_overflowing);
        log_capture log;
        const zsock_ptr wrong{zsock_new(ZMQ_REP)};
        const int port = zsock_bind(wrong.get(), "tcp://127.0.0.1:*");
        const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
        const zsock_ptr sender{zsock_new(ZMQ_PUSH)};
        const zloop_ptr loop{zloop_new()};
        unsent_count unsent;
        overflow_watch losses{"Overflow!", "Exemption!", "some queue"};
        link_watch link{"some server"};
        link.count(unsent, losses);
        link.open(sender.get(), endpoint, io_thread_of_handler);
        ASSERT_TRUE(link.join(loop.get()));
        ASSERT_EQ(zsock_connect(sender.get(), "%s", endpoint.c_str()), 0);
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(zstr_send(sender.get(), "a message"), 0);
            unsent.handed_over();
        }
        if (is_overflowing) {
            errno = EAGAIN;
            losses.refused("a test", "a call");
        }
        ASSERT_TRUE(run_until(loop.get(), [&] { return link.state().lost > 0; }));
        EXPECT_EQ(link.state().lost, 3U);
        losses.accepted();
        const auto said = log.messages("main");
        EXPECT_THAT(said,
                    testing::Contains(testing::StartsWith(is_overflowing ? "Overflow some queue: 4 lost in "
                                                                         : "some server: 3 lost by ")));
        link.close();
    }
}

TEST(link_watch, may_be_opened_again_at_once)
{
    log_capture log;
    link_watch link{"some server"};
    for (int i = 0; i < 200; ++i) {
        const zsock_ptr sender{zsock_new(ZMQ_PUSH)};
        link.open(sender.get(), "tcp://127.0.0.1:1", io_thread_of_handler);
        EXPECT_NE(link.events(), nullptr);
        link.close();
    }
    EXPECT_THAT(log.messages("main"), testing::IsEmpty());
}

TEST(unsent_count, knows_what_was_handed_over_while_nobody_was_there)
{
    unsent_count unsent;
    unsent.handed_over();
    unsent.is_up();
    unsent.handed_over();
    unsent.is_up(); // until now
    EXPECT_EQ(unsent.take_lost(), 0U);
    unsent.handed_over();
    unsent.handed_over();
    EXPECT_EQ(unsent.take_lost(), 2U);
    EXPECT_EQ(unsent.take_lost(), 0U);
}

// Its server took none, or too few: what is in the queue is not under way.
TEST(unsent_count, of_a_full_queue_that_went_down_is_all_that_fits_in)
{
    unsent_count unsent;
    unsent.library_holds(4);
    const auto hand_over = [&](int number) {
        for (int i = 0; i < number; ++i)
            unsent.handed_over();
    };
    hand_over(10);
    unsent.refused();
    unsent.went_down();
    EXPECT_EQ(unsent.take_lost(), 4U);

    hand_over(2); // to a new queue, which was too slow at first
    unsent.refused();
    hand_over(1);
    unsent.went_down();
    hand_over(1); // and nobody is there
    EXPECT_EQ(unsent.take_lost(), 1U);

    hand_over(3);
    unsent.refused();
    unsent.went_down();
    EXPECT_EQ(unsent.take_lost(), 3U); // all that it ever got

    hand_over(9);
    unsent.refused();
    unsent.went_down();
    hand_over(2); // as the library finds room later than it has it
    EXPECT_EQ(unsent.take_lost(), 4U);

    hand_over(9);
    unsent.refused();
    unsent.went_down();
    unsent.is_up(); // the library connects again by itself: it sends what it holds
    EXPECT_EQ(unsent.take_lost(), 0U);
}

TEST(link_watch, may_be_opened_again)
{
    link_watch link{"some server"};
    const zloop_ptr loop{zloop_new()};
    for (int i = 0; i < 2; ++i) {
        const zsock_ptr sender{zsock_new(ZMQ_PUSH)};
        link.open(sender.get(), "tcp://127.0.0.1:1", io_thread_of_proxy);
        link.close();
        link.close();
    }
    EXPECT_FALSE(link.is_reached());
}

} // namespace rtls
