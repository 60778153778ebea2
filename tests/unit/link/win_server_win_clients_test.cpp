#include "link/win_server_win_clients.h"

#include "link/sending.h"
#include "link/win_server_private.h"
#include "registry/nodes_container.h"
#include "support/hex_bytes.h"
#include "support/link_clients.h"
#include "support/log_capture.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <thread>
#include <vector>

namespace rtls {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

// Whether the test's own thread is told that a connection's peer is gone.
static thread_local bool peer_is_gone = false;

// Takes the place of the library's.
extern "C" int getpeername(int fd, sockaddr* addr, socklen_t* length) noexcept
{
    if (peer_is_gone) {
        errno = ENOTCONN;
        return -1;
    }
    static const auto next =
        reinterpret_cast<int (*)(int, sockaddr*, socklen_t*)>(dlsym(RTLD_NEXT, "getpeername"));
    return next(fd, addr, length);
}

// What the time of day is to the test's own thread, if it is set: a second later each time it is read.
static thread_local std::optional<time_t> time_of_day;

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock == CLOCK_REALTIME && time_of_day) {
        *time = {.tv_sec = ++*time_of_day, .tv_nsec = 0};
        return 0;
    }
    static const auto next =
        reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    return next(clock, time);
}

TEST(win_clients_reader, messages_that_came_together_came_at_one_time)
{
    const win_link link;
    auto [peer, client] = link.connect();
    const auto heard_at = [&](const char* mac) {
        const nodes_guard guard{*link.nodes()};
        const NODE_t* node = nodes_container_find_by_mac(link.nodes(), hex(mac).data());
        return node ? node->last_activity.tv_sec : 0;
    };
    const auto ask_for_prefix = [&](const char* mac) { return hex("F5 01 01 00") + hex(mac) + hex("F7"); };
    const char* const first = "E400000000000001";
    const char* const second = "E400000000000002";
    const char* const third = "E400000000000003";
    time_of_day = 1'000'000'000;
    peer.send(ask_for_prefix(first) + ask_for_prefix(second));
    EXPECT_TRUE(link.pump_until([&] { return heard_at(second) != 0; }));
    EXPECT_GE(heard_at(first), 1'000'000'000);
    EXPECT_EQ(heard_at(first), heard_at(second));
    peer.send(ask_for_prefix(third));
    EXPECT_TRUE(link.pump_until([&] { return heard_at(third) != 0; }));
    EXPECT_GT(heard_at(third), heard_at(second));
    time_of_day.reset();
}

TEST(win_clients_reader, a_missing_frame_does_not_end_the_loop)
{
    log_capture log;
    const win_link link;
    log.take();
    EXPECT_EQ(handle_win_clients(link.loop(), link.server().win_sock, &link.server()), 1);
    EXPECT_THAT(log.messages("main"), ElementsAre("handle_win_clients: zframe_recv returned NULL!"));
}

TEST(win_clients_reader, takes_several_events_a_call_but_not_all_at_once_while_others_wait)
{
    constexpr size_t event_size = 8192; // of data, at most
    const win_link link;
    WIN_SERVER_t& server = link.server();
    server.calls = std::make_shared<call_queue>();
    server.calls->post([] {});
    auto [peer, client] = link.connect();
    peer.send(hex("F5") +
              bytes_t(100 * event_size, 0x11)); // a frame that does not end, in 100 events or more
    size_t most = 0;
    ASSERT_TRUE(link.pump_until([&, client = client, before = size_t{0}]() mutable {
        most = std::max(most, client->pending_data_size - before);
        before = client->pending_data_size;
        return before == 100 * event_size;
    }));
    EXPECT_GT(most, event_size);
    EXPECT_LE(most, 64 * event_size);
    server.calls.reset();
}

// The port has not been drained for `us`, and `bytes` have been handled meanwhile, at so much processor time (0:
// no large event was among them).
static void fall_behind(WIN_SERVER_t& server, int64_t us, size_t bytes, int64_t cost_us)
{
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    server.undrained_since = zclock_usecs() - us;
    server.undrained_bytes = bytes;
    server.undrained_cost_from =
        cost_us == 0 ? 0 : int64_t{used.tv_sec} * 1'000'000 + used.tv_nsec / 1000 - cost_us;
}

TEST(win_clients_reader, leaves_debug_lines_out_while_it_is_behind_and_says_so_once)
{
    constexpr char said[] =
        "handle_win_clients: bridges send more than can be handled, debug lines are left out meanwhile!";
    const struct {
        const char* given;
        int64_t us;
        size_t bytes;
        int64_t cost_us;
        bool is_behind;
    } cases[] = {
        {"for long, with much", behind_us, behind_bytes, 0, true},
        {"with little: the host was busy", behind_us, behind_bytes - 1, 0, false},
        {"for a moment", 0, behind_bytes, 0, false},
        {"for a moment, at much cost", 0, costly_bytes, costly_us, true},
        {"at much cost, with little", 0, costly_bytes - 1, costly_us, false},
        {"at little cost", 0, costly_bytes, 1, false},
        {"for long, once more", behind_us, behind_bytes, 0, true},
    };
    log_capture log;
    const win_link link;
    WIN_SERVER_t& server = link.server();
    auto [peer, client] = link.connect();
    std::vector<bool> lines_seen; // by who handles a frame
    static std::vector<bool>* seen = nullptr;
    seen = &lines_seen;
    server.process_frame = [](WIN_SERVER_t*, WIN_CLIENT_t*) {
        seen->push_back(dbg_is_wanted(DBG_WIN));
        return true;
    };
    size_t warnings = 0;
    debug_mask = 1U << DBG_WIN;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        lines_seen.clear();
        const uint8_t frame[] = {0xF5, 0, 0, 1, 0xF7};
        peer.send(frame);
        zmq_pollitem_t item{zsock_resolve(server.win_sock), 0, ZMQ_POLLIN, 0};
        ASSERT_EQ(zmq_poll(&item, 1, static_cast<long>(patience.count())), 1);
        fall_behind(server, c.us, c.bytes, c.cost_us);
        EXPECT_EQ(handle_win_clients(link.loop(), server.win_sock, &server), 0);
        EXPECT_EQ(lines_seen, std::vector<bool>{!c.is_behind});
        EXPECT_TRUE(dbg_is_wanted(DBG_WIN)) << "what others have the thread do is shown";
        EXPECT_EQ(server.undrained_bytes, 0U) << "drained";
        const auto messages = log.messages("main");
        warnings += static_cast<size_t>(std::count(messages.begin(), messages.end(), said));
    }
    EXPECT_EQ(warnings, 1U);
    debug_mask = 0;
}

TEST(win_clients_reader, waits_a_moment_for_what_follows_while_it_is_busy)
{
    const win_link link;
    auto [peer, client] = link.connect();
    // Each ping leaves when the echo of the one before is there: a call that handles two has waited.
    std::thread bridge{[&peer = peer] {
        for (uint8_t seq = 1; seq < 100; ++seq) {
            const uint8_t frame[] = {0xF5, 0, 0, seq, 0xF7};
            peer.send(frame);
            peer.receive(sizeof frame);
        }
    }};
    int most = 0;
    EXPECT_TRUE(link.pump_until([&, client = client, before = 0]() mutable {
        const int seq = client->pending_data_size == 3 ? client->pending_data[2] : 0;
        most = std::max(most, seq - before);
        before = seq;
        return seq == 99;
    }));
    bridge.join();
    EXPECT_GE(most, 2);
}

TEST(win_clients_reader, a_drained_socket_is_not_reported)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    peer.send(framed_ping);
    ASSERT_TRUE(link.pump_until([&, client = client] { return client->pending_data_size == ping.size(); }));
    for (const std::string& message : log.messages("main"))
        EXPECT_EQ(message.find("zframe_recv"), std::string::npos) << message;
}

TEST(win_connection, is_greeted_outside_of_any_frame_and_named_by_its_own_port)
{
    log_capture log;
    const win_link link;
    tcp_peer peer{link.port()};
    ASSERT_TRUE(link.pump_until([&] { return link.clients() == 1; }));
    EXPECT_EQ(peer.receive(5), "sync\n");
    const WIN_CLIENT_t* client = link.find(peer.port());
    ASSERT_NE(client, nullptr);
    const std::string key = key_of(*client);
    EXPECT_EQ(key.size(), 10U);
    EXPECT_EQ(key.substr(0, 2), "00");
    EXPECT_EQ(key.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_EQ(client->pending_buffsize, 512U);
    EXPECT_EQ(client->connection_delay, 5U);
    EXPECT_THAT(log.messages("win"), ElementsAre("SLIP: new win client [" + key +
                                                 "] IP 127.0.0.1:" + std::to_string(peer.port())));
    EXPECT_THAT(log.messages("raw"), ElementsAre("SLIP_RAW_OUTPUT: 73796E630A [5] [" + key + "]"));
}

TEST(win_connection, whose_peer_cannot_be_named_is_kept_all_the_same)
{
    log_capture log;
    const win_link link;
    peer_is_gone = true;
    tcp_peer peer{link.port()};
    const bool connected = link.pump_until([&] { return link.clients() == 1; });
    peer_is_gone = false;
    ASSERT_TRUE(connected);
    EXPECT_EQ(peer.receive(5), "sync\n");
    const WIN_CLIENT_t* client = link.find(0);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->addr.sin_addr.s_addr, 0U);
    EXPECT_THAT(log.messages("win"),
                ElementsAre("SLIP: (E) Cannot get IP address for win client [" + key_of(*client) + "]"));

    peer.send(framed_ping);
    EXPECT_TRUE(link.pump_until([&] { return client->pending_data_size == ping.size(); }));
    EXPECT_EQ(peer.receive(framed_ping.size()), text_of(framed_ping));
}

TEST(win_connection, closed_by_the_peer_is_forgotten)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    const uint8_t mac[mac_size] = {0x01, 0x02, 0x03, 0x04, 0x05, 0xA6, 0xB7, 0xC8};
    link.server().clients.set_mac_addr(*client, mac);
    const std::string then = "SLIP: Connection closed by peer IP:127.0.0.1:" + std::to_string(peer.port()) +
                             " MAC:0102030405a:6b7c8 ID:[" + key_of(*client) + "]";
    log.take();
    peer.close();
    ASSERT_TRUE(link.pump_until([&] { return link.clients() == 0; }));
    EXPECT_THAT(log.messages("win"), ElementsAre(then));
}

TEST(win_connection, data_of_an_unknown_client_is_reported_and_dropped)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    const std::string key = key_of(*client);
    link.server().clients.erase(key.c_str());
    log.take();
    peer.send(framed_ping);
    const std::string then = "SLIP: (E) rsvd from non existed client " + key;
    ASSERT_TRUE(link.pump_until([&] { return log.wait_for(then, std::chrono::milliseconds(1)); }));
    EXPECT_THAT(log.messages("win"), ElementsAre(then));
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_EQ(link.server().counts.events[bridge_event::data_of_nobody].value(), 1U);
    EXPECT_EQ(link.server().counts.bytes_in.value(), 0U);
}

TEST(win_connection, the_late_notice_of_one_that_we_closed_makes_no_client)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    const std::string key = key_of(*client);
    peer.close();
    // The poll fetches the notice of the peer's closing before we close the connection ourselves.
    zmq_pollitem_t item{zsock_resolve(link.server().win_sock), 0, ZMQ_POLLIN, 0};
    ASSERT_EQ(zmq_poll(&item, 1, static_cast<long>(patience.count())), 1);
    delete_win_client(&link.server(), client->id);
    EXPECT_EQ(link.server().closed_ids.size(), 1U);
    log.take();
    ASSERT_TRUE(link.pump_until([&] { return link.server().closed_ids.empty(); }));
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_THAT(log.messages("win"), IsEmpty());
    const auto& events = link.server().counts.events;
    EXPECT_EQ(events[bridge_event::late_end].value(), 1U);
    EXPECT_EQ(events[bridge_event::connected].value(), 1U);
    EXPECT_EQ(events[bridge_event::disconnected].value(), 0U);

    const auto next = link.connect(); // connections after it are as welcome as ever
    EXPECT_EQ(link.clients(), 1U);
}

TEST(win_connection, whose_queue_is_just_full_is_cut_without_waiting_for_room)
{
    log_capture log;
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    (void)link.fill(*client);
    ASSERT_THAT(unsent(*client), IsEmpty()); // full, and nothing shows yet that it does not read
    constexpr milliseconds time_out{20'000};
    zsock_set_sndtimeo(link.server().win_sock, static_cast<int>(time_out.count()));
    log.take();
    const auto begin = std::chrono::steady_clock::now();
    delete_win_client(&link.server(), client->id);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, time_out / 2);
    EXPECT_TRUE(peer.is_closed());
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST(win_data, complete_frames_are_answered_however_they_are_cut)
{
    const win_link link;
    auto [peer, client] = link.connect();
    const bytes_view stream{framed_ping};
    for (size_t at = 0; at < stream.size(); ++at) { // each byte a segment of its own
        peer.send(stream.subspan(at, 1));
        const auto is_fed = [&, client = client] {
            return at == 0                  ? client->parsing_state == PS_START
                   : at + 1 < stream.size() ? client->pending_data_size == at
                                            : client->parsing_state == PS_NONE;
        };
        ASSERT_TRUE(link.pump_until(is_fed)) << at;
    }
    EXPECT_EQ(peer.receive(framed_ping.size()), text_of(framed_ping));
}

TEST(win_data, is_dumped_in_both_directions)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    log.take();
    peer.send(framed_ping);
    ASSERT_TRUE(link.pump_until([&, client = client] { return client->pending_data_size == ping.size(); }));
    const std::string key = "[" + key_of(*client) + "]";
    EXPECT_THAT(log.messages("raw"), ElementsAre("SLIP_RAW_INPUT: F5000005AAF7 [6] 127.0.0.1:" +
                                                     std::to_string(peer.port()) + " " + key,
                                                 "SLIP_RAW_OUTPUT: F5000005AAF7 [6] " + key));
}

} // namespace rtls
