#include "link/sending.h"
#include "link/unsent_messages.h"
#include "link/win_server_private.h"
#include "link/win_server_win_clients.h"

#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/peer.h"
#include "link/rpl_version.h"
#include "support/failing_new.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <thread>

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

namespace {

std::string text(const bytes_t& bytes)
{
    return {bytes.begin(), bytes.end()};
}

std::string key_of(const WIN_CLIENT_t& client)
{
    return identity_key{client.id}.c_str();
}

// What waits for the client, oldest first.
std::vector<std::string> unsent(WIN_CLIENT_t& client)
{
    std::vector<std::string> texts;
    for (size_t left = client.unsent_messages.size(); left > 0; --left) { // once around
        const bytes_view front = client.unsent_messages.front();
        const bytes_t bytes{front.begin(), front.end()};
        texts.push_back(text(bytes));
        client.unsent_messages.pop();
        EXPECT_TRUE(client.unsent_messages.append(bytes));
    }
    return texts;
}

bool send_to(const win_link& link, zframe_t* id, const bytes_t& message)
{
    return data_to_win_client(&link.server(), id, message.data(), message.size());
}

// A record whose connection does not exist: whatever is sent to it fails.
WIN_CLIENT_t* add_unreachable(const win_link& link, const char* identity)
{
    const zframe_ptr id{zframe_new(identity, 5)};
    win_client_ptr made{win_client_new(id.get())};
    const std::string key = key_of(*made);
    return link.server().clients.insert(key.c_str(), std::move(made));
}

constexpr char unreachable[] = "esc_data_to_win_client: zframe_send: 113, Host unreachable";

const bytes_t ping = hex("00 00 05 AA");
const bytes_t framed_ping = hex("F5 00 00 05 AA F7");

} // namespace

TEST(win_clients_reader, a_missing_frame_does_not_end_the_loop)
{
    log_capture log;
    const win_link link;
    log.take();
    EXPECT_EQ(handle_win_clients(link.loop(), link.server().win_sock, &link.server()), 1);
    EXPECT_THAT(log.messages("main"), ElementsAre("handle_win_clients: zframe_recv returned NULL!"));
}

TEST(win_clients_reader, takes_several_events_a_call_but_not_all_at_once)
{
    constexpr size_t event_size = 8192; // of data, at most
    const win_link link;
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
    EXPECT_EQ(peer.receive(framed_ping.size()), text(framed_ping));
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
    ASSERT_EQ(zmq_poll(&item, 1, 5000), 1);
    delete_win_client(&link.server(), client->id);
    EXPECT_EQ(link.server().closed_ids.size(), 1U);
    log.take();
    ASSERT_TRUE(link.pump_until([&] { return link.server().closed_ids.empty(); }));
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_THAT(log.messages("win"), IsEmpty());

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
    constexpr milliseconds time_out{2000};
    zsock_set_sndtimeo(link.server().win_sock, static_cast<int>(time_out.count()));
    log.take();
    const auto begin = std::chrono::steady_clock::now();
    delete_win_client(&link.server(), client->id);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, time_out / 2);
    EXPECT_TRUE(peer.is_closed());
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST(closed_ids, are_remembered_once_and_in_bounded_number)
{
    closed_id_set ids;
    EXPECT_FALSE(ids.forget("0000000001"));
    ids.remember("0000000001");
    EXPECT_FALSE(ids.forget("0000000002"));
    EXPECT_TRUE(ids.forget("0000000001"));
    EXPECT_FALSE(ids.forget("0000000001"));
    EXPECT_TRUE(ids.empty());

    const size_t many = 5 * closed_id_set::generation_size;
    for (size_t i = 0; i < many; ++i)
        ids.remember(std::to_string(i).c_str());
    EXPECT_LE(ids.size(), 2 * closed_id_set::generation_size);
    for (size_t i = many - closed_id_set::generation_size; i < many; ++i)
        ASSERT_TRUE(ids.forget(std::to_string(i).c_str())) << i;
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
    EXPECT_EQ(peer.receive(framed_ping.size()), text(framed_ping));
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

TEST(data_to_win_client, a_message_that_memory_is_too_short_for_is_neither_sent_nor_cached)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    const win_link link;
    WIN_CLIENT_t* lost = add_unreachable(link, "\0abcd");
    log.take();
    const bytes_t large(5000, 0x11);
    fail_next_allocations(1);
    EXPECT_FALSE(send_to(link, lost->id, large));
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_THAT(log.messages("main"), ElementsAre("data_to_win_client: out of memory!"));
    EXPECT_THAT(unsent(*lost), IsEmpty());
}

TEST(data_to_win_client, is_false_for_an_unknown_client_alone)
{
    log_capture log;
    const win_link link;
    const zframe_ptr stranger{zframe_new("\0wxyz", 5)};
    EXPECT_FALSE(send_to(link, stranger.get(), ping));

    auto [peer, client] = link.connect();
    EXPECT_TRUE(send_to(link, client->id, hex("01 F5 02")));
    EXPECT_EQ(peer.receive(6), text(hex("F5 01 F6 F5 02 F7")));
    EXPECT_THAT(unsent(*client), IsEmpty());

    WIN_CLIENT_t* lost = add_unreachable(link, "\0abcd");
    log.take();
    EXPECT_TRUE(send_to(link, lost->id, ping));
    EXPECT_THAT(unsent(*lost), ElementsAre(text(framed_ping)));
    EXPECT_EQ(lost->unsent_messages.bytes(), framed_ping.size());
    EXPECT_THAT(log.messages("main"), ElementsAre(unreachable));

    EXPECT_TRUE(send_to(link, lost->id, hex("01"))); // after what waits, whatever becomes of it
    EXPECT_THAT(unsent(*lost), ElementsAre(text(framed_ping), text(hex("F5 01 F7"))));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("unsent_messages_to_win_client: zframe_send: 113, Host unreachable"));

    const bytes_t filler(unsent_messages_limit - lost->unsent_messages.bytes());
    EXPECT_TRUE(lost->unsent_messages.append(filler)); // no room: lost, and true all the same
    EXPECT_TRUE(send_to(link, lost->id, hex("02")));
    EXPECT_EQ(unsent(*lost).size(), 3U);
}

TEST(data_to_win_client, sends_what_waits_first)
{
    const win_link link;
    auto [peer, client] = link.connect();
    ASSERT_TRUE(data_to_cache(&link.server(), client, reinterpret_cast<const uint8_t*>("old "), 4));
    EXPECT_TRUE(send_to(link, client->id, hex("01")));
    EXPECT_EQ(peer.receive(7), "old " + text(hex("F5 01 F7")));
    EXPECT_THAT(unsent(*client), IsEmpty());
    EXPECT_EQ(client->unsent_messages.bytes(), 0U);
}

TEST(data_to_win_client, without_an_identity_reaches_every_client_once)
{
    const win_link link;
    std::vector<win_link::bridge_t> bridges;
    for (int i = 0; i < 20; ++i)
        bridges.push_back(link.connect());
    EXPECT_TRUE(send_to(link, nullptr, ping));
    EXPECT_TRUE(send_to(link, nullptr, hex("01")));
    for (auto& bridge : bridges)
        EXPECT_EQ(bridge.peer.receive(9), text(framed_ping + hex("F5 01 F7")));
}

TEST(data_to_win_client, without_any_client_is_true)
{
    const win_link link;
    EXPECT_TRUE(send_to(link, nullptr, ping));
}

TEST(data_to_win_client, encodes_messages_of_every_size)
{
    const win_link link;
    auto [peer, client] = link.connect();
    for (const size_t size : {0u, 1u, 510u, 511u, 512u, 5000u}) {
        const bytes_t message(size + 1, 0xF6); // never without storage: a null pointer is refused
        EXPECT_TRUE(data_to_win_client(&link.server(), client->id, message.data(), size)) << size;
        const std::string encoded = peer.receive(2 * (size + 1));
        EXPECT_EQ(encoded, "\xF5" + std::string(2 * size, '\xF6') + "\xF7") << size;
    }
}

TEST(esc_data_to_win_client, data_that_memory_is_too_short_for_leave_the_socket_in_step)
{
    if (!malloc_can_refuse)
        GTEST_SKIP() << "the sanitizer ends the program instead of refusing the memory";
    log_capture log;
    const win_link link;
    auto [first_peer, first] = link.connect();
    auto [second_peer, second] = link.connect();
    log.take();
    EXPECT_FALSE(esc_data_to_win_client(&link.server(), first->id, ping.data(), SIZE_MAX / 8));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("esc_data_to_win_client: zframe_new: 12, Cannot allocate memory"));

    EXPECT_TRUE(send_to(link, second->id, hex("02")));
    EXPECT_EQ(second_peer.receive(3), text(hex("F5 02 F7")));
    EXPECT_TRUE(send_to(link, first->id, hex("01")));
    EXPECT_EQ(first_peer.receive(3), text(hex("F5 01 F7")));
}

TEST(esc_data_to_win_client, caches_nothing_and_leaves_the_identity_usable)
{
    log_capture log;
    const win_link link;
    WIN_CLIENT_t* lost = add_unreachable(link, "\0abcd");
    auto [peer, client] = link.connect();
    log.take();
    EXPECT_FALSE(esc_data_to_win_client(&link.server(), lost->id, ping.data(), ping.size()));
    EXPECT_THAT(log.messages("main"), ElementsAre(unreachable));
    EXPECT_THAT(unsent(*lost), IsEmpty());
    for (int round = 0; round < 3; ++round) // the failure has not put the socket out of step
        EXPECT_TRUE(esc_data_to_win_client(&link.server(), client->id, ping.data(), ping.size()));
    EXPECT_EQ(peer.receive(3 * ping.size()), text(ping + ping + ping));
}

TEST(esc_data_to_win_client, is_silent_about_a_full_queue)
{
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    (void)link.fill(*client);
    log_capture log;
    EXPECT_FALSE(esc_data_to_win_client(&link.server(), client->id, ping.data(), ping.size()));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_TRUE(send_to(link, client->id, ping));
    EXPECT_THAT(unsent(*client), ElementsAre(text(framed_ping)));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_THAT(log.messages("raw"), ElementsAre("SLIP_RAW_CACHE: F5000005AAF7 [6] cache size: 1"));
}

TEST(data_to_cache, keeps_sixteen_mebibytes_and_reports_the_first_loss_alone)
{
    log_capture log;
    const win_link link;
    WIN_CLIENT_t* client = add_unreachable(link, "\0abcd");
    log.take();
    const bytes_t mebibyte(1024 * 1024, 0x11);
    for (int i = 0; i < 16; ++i)
        ASSERT_TRUE(data_to_cache(&link.server(), client, mebibyte.data(), mebibyte.size()));
    EXPECT_EQ(client->unsent_messages.bytes(), unsent_messages_limit);
    (void)log.messages("main");
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(data_to_cache(&link.server(), client, ping.data(), 1));
    EXPECT_THAT(
        log.messages("main"),
        ElementsAre("data_to_cache: win client [0061626364] IP 0.0.0.0:0 does not read: 16777216 bytes "
                    "wait for it, messages are lost!"));
    EXPECT_EQ(client->unsent_messages.size(), 16U);
}

TEST(data_to_cache, keeps_no_more_small_messages_than_memory_is_meant_for)
{
    log_capture log;
    const win_link link;
    WIN_CLIENT_t* client = add_unreachable(link, "\0abcd");
    // What waits already, without 262,142 records of it.
    while (client->unsent_messages.size() < unsent_messages_number_limit - 2)
        ASSERT_TRUE(client->unsent_messages.append(hex("78")));
    log.take();
    EXPECT_TRUE(data_to_cache(&link.server(), client, ping.data(), 1));
    EXPECT_TRUE(data_to_cache(&link.server(), client, ping.data(), 1));
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(data_to_cache(&link.server(), client, ping.data(), 1));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("data_to_cache: win client [0061626364] IP 0.0.0.0:0 does not read: 262144 bytes "
                            "wait for it, messages are lost!"));
    EXPECT_EQ(client->unsent_messages.size(), 262'144U);
}

TEST(rpl_version, goes_to_every_client_and_advances_each_time)
{
    const win_link link;
    std::vector<win_link::bridge_t> bridges;
    for (int i = 0; i < 2; ++i)
        bridges.push_back(link.connect());
    link.server().rpl_prefix = 0x1234;
    link.server().unprocessed_MSG_PANID_REQ = true;
    const uint8_t before = get_next_rpl_version();
    rpl_version_to_win_clients(&link.server());
    EXPECT_TRUE(link.server().rpl_timer_is_active);
    EXPECT_FALSE(link.server().unprocessed_MSG_PANID_REQ);
    const bytes_t version{static_cast<uint8_t>(before + 1)};
    for (auto& bridge : bridges)
        EXPECT_EQ(bridge.peer.receive(7), text(hex("F5 02 81 34 12") + version + hex("F7")));
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
