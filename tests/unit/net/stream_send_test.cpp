#include "net/stream_send.h"

#include "base/czmq_ptr.h"
#include "support/hex_bytes.h"
#include "support/tcp_peer.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

namespace rtls {

namespace {

class stream_sending : public testing::Test {
protected:
    // The identity of the next connection.
    bytes_t accept()
    {
        const zframe_ptr identity{zframe_recv(m_sock.get())};
        const zframe_ptr nothing{zframe_recv(m_sock.get())};
        return {zframe_data(identity.get()), zframe_data(identity.get()) + zframe_size(identity.get())};
    }

    bool send(const bytes_t& identity, const bytes_t& bytes)
    {
        message_part part{bytes};
        const bool sent = stream_send(m_sock.get(), identity, part);
        const int error = errno;
        EXPECT_EQ(part.size(), sent ? 0U : bytes.size());
        errno = error;
        return sent;
    }

    zsock_ptr m_sock{zsock_new(ZMQ_STREAM)};
    tcp_peer m_peer{static_cast<uint16_t>(zsock_bind(m_sock.get(), "tcp://127.0.0.1:*"))};
    const bytes_t m_identity = accept();
};

} // namespace

TEST_F(stream_sending, bytes_follow_their_identity)
{
    EXPECT_TRUE(send(m_identity, hex("61 62")));
    ASSERT_TRUE(stream_send_identity(m_sock.get(), m_identity, when_full::wait));
    message_part rest{hex("63")};
    EXPECT_TRUE(stream_send_bytes(m_sock.get(), rest));
    EXPECT_EQ(m_peer.receive(3), "abc");
}

TEST_F(stream_sending, small_bytes_follow_their_identity)
{
    const std::string longest(inline_part_size, 'b');
    for (const std::string& text : {std::string{"a"}, longest, std::string{"c"}}) {
        EXPECT_TRUE(stream_send_small(m_sock.get(), m_identity,
                                      {reinterpret_cast<const uint8_t*>(text.data()), text.size()}));
        EXPECT_EQ(m_peer.receive(text.size()), text);
    }
}

TEST_F(stream_sending, small_bytes_for_an_unknown_identity_leave_the_socket_in_step)
{
    EXPECT_FALSE(stream_send_small(m_sock.get(), hex("00 11 22 33 44"), hex("7A")));
    EXPECT_EQ(errno, EHOSTUNREACH);
    EXPECT_TRUE(stream_send_small(m_sock.get(), m_identity, hex("61")));
    EXPECT_EQ(m_peer.receive(1), "a");
}

// What is refused leaves neither part behind: the next message reaches its peer.
TEST_F(stream_sending, an_unknown_identity_leaves_the_socket_in_step)
{
    EXPECT_FALSE(send(hex("00 11 22 33 44"), hex("7A")));
    EXPECT_EQ(errno, EHOSTUNREACH);
    EXPECT_FALSE(send({}, hex("7A")));
    EXPECT_TRUE(send(m_identity, hex("61")));
    EXPECT_EQ(m_peer.receive(1), "a");
}

TEST_F(stream_sending, bytes_without_an_addressee_fail)
{
    message_part lost{hex("7A")};
    EXPECT_FALSE(stream_send_bytes(m_sock.get(), lost));
    EXPECT_TRUE(send(m_identity, hex("61")));
    EXPECT_EQ(m_peer.receive(1), "a");
}

TEST_F(stream_sending, no_bytes_close_the_connection)
{
    EXPECT_TRUE(send(m_identity, {}));
    const auto has_closed = [&] {
        (void)zsock_events(m_sock.get()); // the socket has its part in closing
        return m_peer.is_closed(std::chrono::milliseconds{10});
    };
    EXPECT_TRUE(wait_until(has_closed));
}

} // namespace rtls
