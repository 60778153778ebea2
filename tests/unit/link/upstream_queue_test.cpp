// A full queue towards a server: what waits for room, for how long, and that the WIN port's reader waits with
// it.
#include "link/intake.h"
#include "link/upstream_queue.h"
#include "link/win_server_win_clients.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/sock.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <utility>

namespace rtls {

namespace {

// The endpoint that goes away when this thread has handed over the first part of a message, once; null: none does.
thread_local const char* goes_away_after_a_part = nullptr;

} // namespace

} // namespace rtls

static int noted(int sent, void* socket, int flags)
{
    if (sent >= 0 && (flags & ZMQ_SNDMORE) != 0 && rtls::goes_away_after_a_part)
        zmq_disconnect(socket, std::exchange(rtls::goes_away_after_a_part, nullptr));
    return sent;
}

extern "C" int zmq_send(void* socket, const void* bytes, size_t size, int flags)
{
    const auto send = reinterpret_cast<decltype(zmq_send)*>(dlsym(RTLD_NEXT, "zmq_send"));
    return noted(send(socket, bytes, size, flags), socket, flags);
}

extern "C" int zmq_msg_send(zmq_msg_t* message, void* socket, int flags)
{
    const auto send = reinterpret_cast<decltype(zmq_msg_send)*>(dlsym(RTLD_NEXT, "zmq_msg_send"));
    return noted(send(message, socket, flags), socket, flags);
}

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(wait_allowance, is_half_a_second_and_comes_back_within_two_and_a_half)
{
    wait_allowance allowance;
    EXPECT_TRUE(allowance.has_any(10'000));
    allowance.spend_ms(wait_allowance::most_ms - 1);
    EXPECT_TRUE(allowance.has_any(10'000));
    allowance.spend_ms(1);
    EXPECT_FALSE(allowance.has_any(10'000));
    EXPECT_FALSE(allowance.has_any(10'004));
    EXPECT_TRUE(allowance.has_any(10'005));
    allowance.spend_ms(1);
    EXPECT_FALSE(allowance.has_any(10'009)); // what has been earned is earned once
    EXPECT_TRUE(allowance.has_any(10'010));
    allowance.spend_ms(1);
    EXPECT_TRUE(allowance.has_any(1'000'000)); // never more than at first
    allowance.spend_ms(wait_allowance::most_ms);
    EXPECT_FALSE(allowance.has_any(1'000'000));
}

namespace {

constexpr bool may_wait = true;

class full_queue : public testing::Test {
public:
    full_queue()
    {
        zsock_set_sndhwm(sender.get(), 1);
        zsock_set_rcvhwm(server.get(), 1);
        zsock_bind(server.get(), "%s", endpoint.c_str());
        zsock_connect(sender.get(), "%s", endpoint.c_str());
        room = fill();
    }

    void* socket() const { return zsock_resolve(sender.get()); }

    void send(uint8_t number, bool waits)
    {
        const uint8_t bytes[] = {number};
        message_part second{bytes_view{bytes}};
        queue.send(socket(), bytes_view{bytes}, second, waits);
    }

    // Fills the library's queue, and says how many messages that takes.
    unsigned fill()
    {
        unsigned sent = 0;
        while ((zsock_events(sender.get()) & ZMQ_POLLOUT) != 0) {
            send(0, !may_wait);
            ++sent;
        }
        return sent;
    }

    std::vector<int> received()
    {
        std::vector<int> numbers;
        message_part part;
        while (part.receive(zsock_resolve(server.get()))) {
            EXPECT_EQ(part.size(), 1U) << "a message begins with its first part";
            numbers.push_back(part.size() == 1 ? part.data()[0] : -1);
            EXPECT_TRUE(part.receive(zsock_resolve(server.get()))) << "a message is whole";
            EXPECT_EQ(part.data()[0], numbers.back());
            queue.retry(socket());
        }
        return numbers;
    }

    const std::string endpoint = new_endpoint();
    log_capture log;
    zsock_ptr server{zsock_new(ZMQ_PULL)};
    zsock_ptr sender{zsock_new(ZMQ_PUSH)};
    upstream_queue queue{"Overflow!", "Exemption!", "some queue", "function", "call"};
    unsigned room = 0;
};

} // namespace

TEST_F(full_queue, keeps_what_may_wait_in_order_until_there_is_room)
{
    for (uint8_t i = 1; i <= 5; ++i)
        send(i, may_wait);
    EXPECT_TRUE(queue.is_waiting());
    std::vector<int> then(room, 0);
    for (int i = 1; i <= 5; ++i)
        then.push_back(i);
    EXPECT_EQ(received(), then);
    EXPECT_FALSE(queue.is_waiting());
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST_F(full_queue, loses_at_once_what_may_not_wait)
{
    send(1, !may_wait);
    EXPECT_FALSE(queue.is_waiting());
    send(2, may_wait); // the overflow goes on: no wait in it
    EXPECT_FALSE(queue.is_waiting());
    EXPECT_THAT(log.messages("main"), ElementsAre("Overflow!"));
}

TEST_F(full_queue, loses_what_has_waited_for_fifty_milliseconds)
{
    send(1, may_wait);
    send(2, may_wait);
    for (int i = 1; i < upstream_queue::patience_ms; ++i)
        queue.retry(socket());
    EXPECT_TRUE(queue.is_waiting());
    queue.retry(socket());
    EXPECT_FALSE(queue.is_waiting());
    (void)received();
    send(3, may_wait);
    EXPECT_THAT(log.messages("main"),
                ElementsAre("Overflow!", "Exemption!", StartsWith("Overflow some queue: 2 lost in ")));
}

TEST_F(full_queue, waits_no_more_when_the_allowance_is_spent)
{
    const int64_t begin = zclock_mono();
    int waits = 0;
    for (; waits < 1000; ++waits) {
        send(1, may_wait);
        if (!queue.is_waiting())
            break;
        queue.retry(socket());
        while (queue.is_waiting() && queue.has_waited_ms() < 25)
            queue.retry(socket());
        (void)received();
        (void)fill();
    }
    const int64_t earned = (zclock_mono() - begin) / wait_allowance::earned_every_ms;
    EXPECT_GE(waits, 18);
    EXPECT_LE(waits, (wait_allowance::most_ms + earned) / 25 + 1);
}

TEST_F(full_queue, counts_what_waits_at_the_stop_as_lost)
{
    send(1, may_wait);
    send(2, may_wait);
    queue.stopping(socket());
    EXPECT_THAT(log.messages("main"),
                ElementsAre("Overflow!", StartsWith("Overflow some queue: 2 lost in ")));
}

TEST_F(full_queue, loses_a_message_that_its_server_leaves_in_the_middle_of)
{
    (void)received(); // there is room
    goes_away_after_a_part = endpoint.c_str();
    send(1, may_wait);
    EXPECT_FALSE(queue.is_waiting());
    EXPECT_EQ(queue.counts().lost.value(static_cast<size_t>(upstream_loss::error)), 1U);
    zsock_connect(sender.get(), "%s", endpoint.c_str());
    send(2, may_wait);
    queue.retry(socket());
    EXPECT_THAT(received(), ElementsAre(2));
}

TEST_F(full_queue, loses_one_that_has_waited_in_the_same_way_and_keeps_the_next)
{
    send(1, may_wait);
    send(2, may_wait);
    goes_away_after_a_part = endpoint.c_str();
    EXPECT_EQ(received(), std::vector<int>(room, 0));
    EXPECT_EQ(goes_away_after_a_part, nullptr);
    EXPECT_TRUE(queue.is_waiting());
    EXPECT_EQ(queue.counts().lost.value(static_cast<size_t>(upstream_loss::error)), 1U);
    zsock_connect(sender.get(), "%s", endpoint.c_str());
    queue.retry(socket());
    EXPECT_FALSE(queue.is_waiting());
    EXPECT_THAT(received(), ElementsAre(2));
}

TEST_F(full_queue, pauses_the_reader_of_the_win_port_until_there_is_room)
{
    const win_link link;
    WIN_SERVER_t& gateway = link.server();
    ASSERT_EQ(zloop_reader(link.loop(), gateway.win_sock, handle_win_clients, &gateway), 0);
    gateway.msg_handler_sock.reset(sender.get()); // lent
    gateway.proxy_input_sock.reset(sender.get());
    const uint8_t bytes[] = {7};
    message_part part{bytes_view{bytes}};
    gateway.to_handler.send(socket(), part, nullptr, may_wait);
    ASSERT_TRUE(gateway.to_handler.is_waiting());
    intake_pause(gateway);
    EXPECT_TRUE(gateway.intake_is_paused);

    struct {
        full_queue& test;
        WIN_SERVER_t& gateway;
        tcp_peer bridge;
        bool was_served_early;
    } seen{*this, gateway, tcp_peer{link.port()}, false};
    // 20 ms on the bridge is not greeted yet; then the server takes what fills the queue, and it is.
    zloop_timer(
        link.loop(), 20, 1,
        [](zloop_t*, int, void* p) {
            auto& s = *static_cast<decltype(seen)*>(p);
            s.was_served_early = s.gateway.clients.size() != 0;
            message_part taken;
            while (taken.receive(zsock_resolve(s.test.server.get()))) {
            }
            return 0;
        },
        &seen);
    zloop_timer(
        link.loop(), 1, 0,
        [](zloop_t*, int, void* p) {
            return static_cast<decltype(seen)*>(p)->gateway.clients.size() != 0 ? -1 : 0;
        },
        &seen);
    zloop_start(link.loop());
    EXPECT_FALSE(seen.was_served_early);
    EXPECT_FALSE(gateway.intake_is_paused);
    EXPECT_FALSE(gateway.to_handler.is_waiting());
    (void)gateway.msg_handler_sock.release();
    (void)gateway.proxy_input_sock.release();
}

} // namespace rtls
