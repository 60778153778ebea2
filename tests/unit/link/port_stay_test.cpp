// The stay at the WIN port: what ends it, and what does not.
#include "link/port_stay.h"
#include "net/stream_send.h"
#include "support/hex_bytes.h"
#include "support/sock.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

namespace rtls {

namespace {

// A server with every source that a stay looks at, and a port that is drained.
class waiting_link : public win_link {
public:
    waiting_link()
    {
        server().calls = std::make_shared<call_queue>();
        join(server().interthread_sever_sock, m_requests, ZMQ_ROUTER, ZMQ_DEALER);
        join(server().proxy_sock, m_commands, ZMQ_PULL, ZMQ_PUSH);
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, m_datagrams) == 0)
            server().discovery_sock_descriptor = m_datagrams[0];
        m_handler.reset(zsock_new(ZMQ_PUSH));
        server().msg_handler_link.open(m_handler.get(), nowhere, io_thread_of_ports);
        EXPECT_FALSE(has_events(zsock_resolve(server().win_sock)));
        EXPECT_FALSE(
            has_events(zsock_resolve(server().msg_handler_link.events()))); // then its descriptor tells
    }
    ~waiting_link()
    {
        server().msg_handler_link.close();
        server().interthread_sever_sock.reset();
        server().proxy_sock.reset();
        server().calls.reset();
        server().discovery_sock_descriptor = -1;
        close(m_datagrams[0]);
        close(m_datagrams[1]);
    }

    void request() { zstr_send(m_requests.get(), "r"); }
    void command() { zstr_send(m_commands.get(), "c"); }
    void call()
    {
        server().calls->post([] {});
    }
    void datagram() { EXPECT_EQ(send(m_datagrams[1], "d", 1, 0), 1); }

    void link_event()
    {
        zsock_connect(m_handler.get(), "%s", nowhere);
        pollfd told{zsock_fd(server().msg_handler_link.events()), POLLIN, 0};
        EXPECT_EQ(poll(&told, 1, static_cast<int>(patience.count())), 1);
    }

    // A stay that would last for longer than any test.
    port_stay stay() const { return {server(), zclock_usecs() + 3'600'000'000}; }

private:
    static constexpr char nowhere[] = "tcp://127.0.0.1:1";

    template <typename Sock>
    static void join(Sock& ours, zsock_ptr& theirs, int type, int peers_type)
    {
        const std::string endpoint = new_endpoint();
        ours.reset(zsock_new(type));
        zsock_bind(ours, "%s", endpoint.c_str());
        theirs.reset(zsock_new(peers_type));
        zsock_connect(theirs.get(), "%s", endpoint.c_str());
    }

    zsock_ptr m_requests;
    zsock_ptr m_commands;
    zsock_ptr m_handler;
    int m_datagrams[2] = {-1, -1};
};

struct news {
    const char* name;
    void (waiting_link::*come)();

    friend std::ostream& operator<<(std::ostream& out, const news& n) { return out << n.name; }
};

class port_stay_news : public testing::TestWithParam<news> {};

} // namespace

TEST_P(port_stay_news, of_others_at_hand_leave_no_time)
{
    waiting_link link;
    (link.*GetParam().come)();
    EXPECT_FALSE(link.stay().goes_on(zclock_usecs()));
}

TEST_P(port_stay_news, of_others_end_it)
{
    waiting_link link;
    auto [peer, client] = link.connect();
    port_stay stay = link.stay();
    peer.send(hex("01"));
    ASSERT_TRUE(stay.goes_on(zclock_usecs()));
    ASSERT_TRUE(link.pump_until([&, client = client] { return client->counts->noise.value() > 0; }));
    (link.*GetParam().come)();
    EXPECT_FALSE(stay.goes_on(zclock_usecs()));
}

TEST_P(port_stay_news, of_others_come_before_events_that_are_left)
{
    waiting_link link;
    port_stay stay = link.stay();
    EXPECT_TRUE(stay.goes_on(std::nullopt)) << "without waiting for anything";
    (link.*GetParam().come)();
    EXPECT_FALSE(stay.goes_on(std::nullopt));
}

INSTANTIATE_TEST_SUITE_P(all, port_stay_news,
                         testing::Values(news{"request", &waiting_link::request},
                                         news{"command", &waiting_link::command},
                                         news{"call", &waiting_link::call},
                                         news{"datagram", &waiting_link::datagram},
                                         news{"link_event", &waiting_link::link_event}),
                         [](const auto& of) { return of.param.name; });

TEST(port_stay, ends_in_time)
{
    waiting_link link;
    const int64_t began = zclock_usecs();
    port_stay stay{link.server(), began};
    EXPECT_FALSE(stay.goes_on(began)) << "nobody says anything";
    EXPECT_GE(zclock_usecs() - began, port_stay::longest_us);
    EXPECT_FALSE(stay.goes_on(std::nullopt)) << "somebody always says something";
}

TEST(port_stay, is_short_beside_timers)
{
    using flag = bool WIN_SERVER_t::*;
    waiting_link link;
    for (const flag timer : {&WIN_SERVER_t::flush_timer_is_active, &WIN_SERVER_t::end_timer_is_active}) {
        port_stay stay{link.server(), zclock_usecs() - port_stay::longest_beside_timers_us};
        link.server().*timer = true;
        EXPECT_FALSE(stay.goes_on(std::nullopt));
        link.server().*timer = false;
    }
}

TEST(port_stay, is_none_while_the_intake_is_paused_or_a_connection_is_to_be_cut)
{
    waiting_link link;
    link.server().intake_is_paused = true;
    EXPECT_FALSE(link.stay().goes_on(std::nullopt));
    link.server().intake_is_paused = false;
    EXPECT_TRUE(link.stay().goes_on(std::nullopt));
    sockaddr_in peer{};
    peer.sin_port = 1;
    link.server().cuts.want("00000001", 0, peer);
    EXPECT_FALSE(link.stay().goes_on(std::nullopt));
    link.server().cuts.forget("00000001");
}

} // namespace rtls
