#include "net/connection_cut.h"

#include "base/message_part.h"
#include "base/peer.h"
#include "support/sock.h"
#include "support/tcp_peer.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace rtls {

// A stream socket of our own, on any port.
class connection_cut_test : public testing::Test {
protected:
    struct event {
        int fd;
        size_t size;
    };

    connection_cut_test() : m_port(static_cast<in_port_t>(zsock_bind(m_sock.get(), "tcp://127.0.0.1:*"))) {}

    void* socket() const { return zsock_resolve(m_sock.get()); }

    bool wait_event() const
    {
        zmq_pollitem_t item{socket(), 0, ZMQ_POLLIN, 0};
        return zmq_poll(&item, 1, static_cast<long>(patience.count())) == 1;
    }

    // The next event, which must come.
    event take_event() const
    {
        EXPECT_TRUE(wait_event());
        message_part identity;
        message_part data;
        EXPECT_TRUE(identity.receive(socket()) && data.receive(socket()));
        return {identity.source_fd(), data.size()};
    }

    // Connects, handles the event, and wants the connection cut.
    tcp_peer connect_unwanted(connection_cuts& cuts)
    {
        tcp_peer peer{m_port};
        const event connected = take_event();
        sockaddr_in address{};
        EXPECT_TRUE(read_peer_address(connected.fd, m_port, address));
        EXPECT_EQ(ntohs(address.sin_port), peer.port());
        cuts.want("one", connected.fd, address);
        return peer;
    }

    const zsock_ptr m_sock{zsock_new(ZMQ_STREAM)};
    const in_port_t m_port;
};

TEST_F(connection_cut_test, a_connection_without_events_is_cut)
{
    connection_cuts cuts;
    tcp_peer peer = connect_unwanted(cuts);
    cuts.carry_out(socket(), m_port);
    EXPECT_TRUE(cuts.empty());
    EXPECT_TRUE(peer.is_closed());
}

TEST_F(connection_cut_test, nothing_is_cut_while_events_wait)
{
    connection_cuts cuts;
    tcp_peer peer = connect_unwanted(cuts);
    tcp_peer other{m_port}; // any event may stand before the end of the connection
    ASSERT_TRUE(wait_event());
    cuts.carry_out(socket(), m_port);
    EXPECT_FALSE(cuts.empty());
    EXPECT_FALSE(peer.is_closed(std::chrono::milliseconds{50}));
    take_event();
    cuts.carry_out(socket(), m_port);
    EXPECT_TRUE(cuts.empty());
    EXPECT_TRUE(peer.is_closed());
    EXPECT_FALSE(other.is_closed(std::chrono::milliseconds{50}));
}

TEST_F(connection_cut_test, what_has_ended_is_forgotten)
{
    connection_cuts cuts;
    tcp_peer peer = connect_unwanted(cuts);
    peer.close();
    EXPECT_EQ(take_event().size, 0u);
    cuts.forget("another");
    EXPECT_FALSE(cuts.empty());
    cuts.forget("one");
    EXPECT_TRUE(cuts.empty());
}

TEST_F(connection_cut_test, a_number_that_somebody_else_got_is_left_alone)
{
    const zsock_ptr other_sock{zsock_new(ZMQ_STREAM)};
    const auto other_port = static_cast<in_port_t>(zsock_bind(other_sock.get(), "tcp://127.0.0.1:*"));
    tcp_peer peer{m_port};
    const event connected = take_event();
    sockaddr_in address{};
    ASSERT_TRUE(read_peer_address(connected.fd, m_port, address));
    sockaddr_in another = address;
    another.sin_port = static_cast<in_port_t>(~address.sin_port);
    const struct {
        const char* given;
        int fd;
        in_port_t own_port;
        sockaddr_in peer;
    } cases[] = {
        {"another peer", connected.fd, m_port, another},
        {"another port of ours", connected.fd, other_port, address},
        {"no socket", STDERR_FILENO, m_port, address},
        {"a closed number", 1 << 20, m_port, address},
        {"no number", -1, m_port, address},
        {"an unknown peer", connected.fd, m_port, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        connection_cuts cuts;
        cuts.want("one", c.fd, c.peer);
        cuts.carry_out(socket(), c.own_port);
        EXPECT_TRUE(cuts.empty());
        EXPECT_FALSE(peer.is_closed(std::chrono::milliseconds{20}));
        EXPECT_GE(fcntl(STDERR_FILENO, F_GETFD), 0);
    }
}

TEST_F(connection_cut_test, a_connection_is_wanted_cut_once)
{
    connection_cuts cuts;
    tcp_peer peer = connect_unwanted(cuts);
    cuts.want("one", -1, {}); // an unknown peer does not take the place of a known one
    tcp_peer second{m_port};
    const event connected = take_event();
    sockaddr_in address{};
    ASSERT_TRUE(read_peer_address(connected.fd, m_port, address));
    cuts.want("one", connected.fd, address); // the last word counts
    cuts.carry_out(socket(), m_port);
    EXPECT_TRUE(cuts.empty());
    EXPECT_TRUE(second.is_closed());
    EXPECT_FALSE(peer.is_closed(std::chrono::milliseconds{20}));
}

TEST_F(connection_cut_test, the_address_of_another_ports_connection_is_not_read)
{
    tcp_peer peer{m_port};
    const event connected = take_event();
    sockaddr_in address{};
    address.sin_port = 7;
    EXPECT_FALSE(read_peer_address(connected.fd, static_cast<in_port_t>(m_port - 1), address));
    EXPECT_FALSE(read_peer_address(-1, m_port, address));
    EXPECT_FALSE(read_peer_address(STDERR_FILENO, m_port, address));
    EXPECT_EQ(address.sin_port, 7);
    EXPECT_TRUE(read_peer_address(connected.fd, m_port, address));
    EXPECT_EQ(ntohs(address.sin_port), peer.port());
}

} // namespace rtls
