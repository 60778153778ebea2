// Ends of connections whose notice is lost: here the test itself takes it away.
#include "link/silent_ends.h"

#include "base/message_part.h"
#include "base/peer.h"
#include "link/sending.h"
#include "link/win_server_win_clients.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/processor_time.h"
#include "support/sanitizers.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class silent_ends : public testing::Test {
protected:
    // Takes the next event off the socket: nobody sees it.
    void lose_event()
    {
        message_part part;
        const auto receive = [&] { return part.receive(zsock_resolve(link.server().win_sock)); };
        ASSERT_TRUE(repeat_until(receive, [] {}));
        ASSERT_TRUE(receive());
        ASSERT_EQ(part.size(), 0U) << "it is an end";
    }
    void leave_unnoticed(tcp_peer& peer, int fd)
    {
        peer.close();
        lose_event();
        ASSERT_TRUE(repeat_until([fd] { return fcntl(fd, F_GETFD) == -1; }, [] {}));
    }
    void check(unsigned times)
    {
        while (times-- > 0)
            end_silent_bridges(link.server());
    }
    static std::string line_of(const WIN_CLIENT_t& client)
    {
        return "SLIP: Connection closed by peer IP:127.0.0.1:" + std::to_string(ntohs(client.addr.sin_port)) +
               " MAC:00000000000:00000 ID:[" + identity_key{client.id}.c_str() + "]";
    }
    void wait_for_all_ends()
    {
        zloop_timer(
            link.loop(), 1, 0,
            [](zloop_t*, int, void* p) { return static_cast<const win_link*>(p)->clients() == 0 ? -1 : 0; },
            const_cast<win_link*>(&link));
        zloop_start(link.loop());
    }
    bool is_waiting() const { return (zsock_events(link.server().win_sock) & ZMQ_POLLIN) != 0; }

    log_capture log;
    const win_link link;
};

} // namespace

TEST_F(silent_ends, a_connection_that_the_system_knows_no_more_has_ended)
{
    auto [peer, client] = link.connect();
    auto [other_peer, other] = link.connect();
    const std::string then = line_of(*client);
    leave_unnoticed(peer, client->fd);
    log.take();
    check(1);
    EXPECT_EQ(link.clients(), 2U) << "it was heard a moment ago";
    check(5);
    EXPECT_EQ(link.clients(), 1U);
    EXPECT_EQ(link.find(other_peer.port()), other);
    EXPECT_THAT(log.messages("win"), ElementsAre(then));
    EXPECT_EQ(link.server().counts.bridges_closed.value(static_cast<size_t>(bridge_end::peer)), 1U);
}

TEST_F(silent_ends, nothing_ends_while_events_wait)
{
    auto [peer, client] = link.connect();
    auto [other_peer, other] = link.connect();
    leave_unnoticed(peer, client->fd);
    other_peer.send(hex("00"));
    ASSERT_TRUE(repeat_until([&] { return is_waiting(); }, [] {}));
    check(5);
    EXPECT_EQ(link.clients(), 2U);
    ASSERT_TRUE(link.pump_until([&] { return !is_waiting(); }));
    check(2);
    EXPECT_EQ(link.clients(), 1U);
}

TEST_F(silent_ends, a_number_that_somebody_else_has_by_now_proves_the_end)
{
    auto [peer, client] = link.connect();
    const int number = client->fd;
    leave_unnoticed(peer, number);
    const int pipe_end = dup(STDIN_FILENO);
    ASSERT_EQ(dup2(pipe_end, number), number);
    check(3);
    EXPECT_EQ(link.clients(), 0U);
    close(pipe_end);
    close(number);
}

TEST_F(silent_ends, of_two_records_with_one_number_the_later_connection_lives)
{
    auto [peer, client] = link.connect();
    const sockaddr_in seen_late = client->addr;
    const int number = client->fd;
    leave_unnoticed(peer, number);
    std::optional<win_link::linked_bridge> next{link.connect()};
    // Where another thread has held a lower number for a moment, the peer's own socket has got this one.
    for (int tries = 0; next->client->fd != number && tries < 20; ++tries) {
        next->peer.close();
        ASSERT_TRUE(link.pump_until([&] { return link.clients() == 1; }));
        next.emplace(link.connect());
    }
    ASSERT_EQ(next->client->fd, number);
    client->addr = next->client->addr; // as if its first event had been handled only now
    check(5);
    EXPECT_EQ(link.clients(), 1U);
    EXPECT_EQ(link.find(next->peer.port()), next->client);
    EXPECT_NE(seen_late.sin_port, next->client->addr.sin_port);
}

TEST_F(silent_ends, a_notice_that_comes_after_all_makes_no_client)
{
    auto [peer, client] = link.connect();
    client->has_lost_number = true; // so it seems
    check(3);
    EXPECT_EQ(link.clients(), 0U);
    peer.close();
    ASSERT_TRUE(repeat_until([&] { return is_waiting(); }, [] {}));
    log.take();
    ASSERT_TRUE(link.pump_until([&] { return !is_waiting(); }));
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_THAT(log.messages("win"), IsEmpty());
}

TEST_F(silent_ends, a_connection_that_the_library_knows_no_way_to_has_ended)
{
    auto [peer, client] = link.connect();
    const std::string then = line_of(*client);
    leave_unnoticed(peer, client->fd);
    log.take();
    const bytes_t message = hex("01 02");
    // The library forgets the way some time after it has closed the number.
    ASSERT_TRUE(repeat_until([&, client = client] { return client->is_unreachable; },
                             [&] {
                                 (void)is_waiting(); // the library looks whether any more has come
                                 data_to_all_bridges(link.server(), message);
                             }));
    EXPECT_EQ(link.clients(), 1U) << "the work at hand may need it";
    wait_for_all_ends();
    EXPECT_THAT(log.messages("win"), ElementsAre(then));
}

// A pause of the host may be the end of thousands: one walk through the table for each takes a second.
TEST_F(silent_ends, of_thousands_cost_no_walk_each)
{
    constexpr uint32_t bridges = 5000;
    WIN_SERVER_t& server = link.server();
    for (uint32_t i = 1; i <= bridges; ++i) {
        const bytes_t identity{0x7F, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        const zframe_ptr id{zframe_new(identity.data(), identity.size())};
        WIN_CLIENT_t* client =
            server.clients.insert(identity_key{identity}.c_str(), win_client_ptr{win_client_new(id.get())});
        ASSERT_NE(client, nullptr);
        note_unreachable(server, *client);
    }
    const auto before = processor_time();
    wait_for_all_ends();
    EXPECT_LT(processor_time() - before, slowness * std::chrono::milliseconds{100});
    EXPECT_EQ(server.counts.bridges_closed.value(static_cast<size_t>(bridge_end::peer)), bridges);
}

} // namespace rtls
