#include "link/sending.h"

#include "base/czmq_ptr.h"
#include "base/peer.h"
#include "link/unsent_messages.h"
#include "support/failing_new.h"
#include "support/link_clients.h"
#include "support/sanitizers.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

// --- messages, framed and cached

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
    EXPECT_EQ(peer.receive(6), text_of(hex("F5 01 F6 F5 02 F7")));
    EXPECT_THAT(unsent(*client), IsEmpty());

    WIN_CLIENT_t* lost = add_unreachable(link, "\0abcd");
    log.take();
    EXPECT_TRUE(send_to(link, lost->id, ping));
    EXPECT_THAT(unsent(*lost), ElementsAre(text_of(framed_ping)));
    EXPECT_EQ(lost->unsent_messages.bytes(), framed_ping.size());
    EXPECT_THAT(log.messages("main"), ElementsAre(unreachable));

    EXPECT_TRUE(send_to(link, lost->id, hex("01"))); // after what waits, whatever becomes of it
    EXPECT_THAT(unsent(*lost), ElementsAre(text_of(framed_ping), text_of(hex("F5 01 F7"))));
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
    EXPECT_EQ(peer.receive(7), "old " + text_of(hex("F5 01 F7")));
    EXPECT_THAT(unsent(*client), IsEmpty());
    EXPECT_EQ(client->unsent_messages.bytes(), 0U);
}

TEST(data_to_win_client, without_an_identity_reaches_every_client_once)
{
    const win_link link;
    auto bridges = link.connect_many(20);
    EXPECT_TRUE(send_to(link, nullptr, ping));
    EXPECT_TRUE(send_to(link, nullptr, hex("01")));
    for (auto& bridge : bridges)
        EXPECT_EQ(bridge.peer.receive(9), text_of(framed_ping + hex("F5 01 F7")));
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

TEST(data_to_win_client, goes_to_all_bridges_in_the_tables_order)
{
    log_capture log;
    const win_link link;
    const auto bridges = link.connect_many(10);
    log.take();
    const uint8_t message = 1;
    EXPECT_TRUE(data_to_win_client(&link.server(), nullptr, &message, 1));
    std::vector<std::string> then;
    for (const auto& key : keys_in_table_order(link))
        then.push_back("SLIP_RAW_OUTPUT: F501F7 [3] [" + key + "]");
    EXPECT_EQ(lines_of(log, {"SLIP_RAW_OUTPUT"}), then);
}

// --- bytes as they are

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
    EXPECT_EQ(second_peer.receive(3), text_of(hex("F5 02 F7")));
    EXPECT_TRUE(send_to(link, first->id, hex("01")));
    EXPECT_EQ(first_peer.receive(3), text_of(hex("F5 01 F7")));
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
    EXPECT_EQ(peer.receive(3 * ping.size()), text_of(ping + ping + ping));
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
    EXPECT_THAT(unsent(*client), ElementsAre(text_of(framed_ping)));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_THAT(log.messages("raw"), ElementsAre("SLIP_RAW_CACHE: F5000005AAF7 [6] cache size: 1"));
}

// --- the end of a connection

TEST(delete_win_client, closes_the_connection_and_forgets_the_client)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    auto [other_peer, other_client] = link.connect();
    log.take();
    delete_win_client(&link.server(), client->id); // the record's own frame goes with it
    EXPECT_EQ(link.clients(), 1U);
    EXPECT_EQ(link.find(other_peer.port()), other_client);
    EXPECT_TRUE(link.pump_until([&, &peer = peer] { return peer.is_closed(std::chrono::milliseconds(1)); }));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_EQ(link.clients(), 1U);

    other_peer.send(hex("F5 00 00 05 AA F7")); // the socket is still in step
    ASSERT_TRUE(link.pump_until([&, client = other_client] {
        return client->pending_data_size == 4 && client->parsing_state == PS_NONE;
    }));
    EXPECT_EQ(other_peer.receive(6), text_of(hex("F5 00 00 05 AA F7")));
}

TEST(delete_win_client, of_an_unknown_identity_leaves_the_socket_in_step)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    const zframe_ptr stranger{zframe_new("\0abcd", 5)};
    log.take();
    delete_win_client(&link.server(), stranger.get());
    EXPECT_THAT(log.messages("main"), ElementsAre("delete_win_client: zframe_send: 113, Host unreachable"));
    EXPECT_EQ(zframe_size(stranger.get()), 5U) << "the frame stays the caller's";
    EXPECT_EQ(link.clients(), 1U);
    EXPECT_TRUE(send_to(link, client->id, hex("18 01 00")));
    EXPECT_EQ(peer.receive(5), text_of(hex("F5 18 01 00 F7")));
}

TEST(delete_win_client, cuts_a_connection_that_takes_no_data)
{
    for (const bool something_waits : {false, true}) {
        SCOPED_TRACE(something_waits);
        const win_link link{10};
        auto [peer, client] = link.connect(4096);
        (void)link.fill(*client);
        if (something_waits) {
            ASSERT_TRUE(data_to_cache(&link.server(), client, reinterpret_cast<const uint8_t*>("x"), 1));
        }
        zsock_set_sndtimeo(link.server().win_sock, something_waits ? 10000 : 100);
        const int64_t start = zclock_mono();
        delete_win_client(&link.server(), client->id);
        EXPECT_LT(zclock_mono() - start, 5000) << "nobody waits for a client known to be stalled";
        EXPECT_EQ(link.clients(), 0U);
        EXPECT_TRUE(
            link.pump_until([&, &peer = peer] { return peer.is_closed(std::chrono::milliseconds(1)); }));
        // Its late notice is no new connection.
        EXPECT_TRUE(link.pump_until([&] { return link.server().closed_ids.empty(); }));
        EXPECT_EQ(link.clients(), 0U);
    }
}

TEST(delete_win_client, cuts_nobody_else_who_got_the_descriptor)
{
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    auto [other_peer, other_client] = link.connect();
    (void)link.fill(*client);
    client->fd = other_client->fd;
    delete_win_client(&link.server(), client->id);
    other_peer.send(hex("F5 00 00 05 AA F7"));
    ASSERT_TRUE(link.pump_until([&, client = other_client] {
        return client->pending_data_size == 4 && client->parsing_state == PS_NONE;
    }));
    EXPECT_EQ(other_peer.receive(6), text_of(hex("F5 00 00 05 AA F7")));
}

// Its end may be among the events: then the number is no longer its own.
TEST(delete_win_client, cuts_only_when_no_event_waits)
{
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    (void)link.fill(*client);
    const tcp_peer another{link.port()};
    zmq_pollitem_t item{zsock_resolve(link.server().win_sock), 0, ZMQ_POLLIN, 0};
    ASSERT_EQ(zmq_poll(&item, 1, static_cast<long>(patience.count())), 1);
    delete_win_client(&link.server(), client->id);
    EXPECT_FALSE(link.server().cuts.empty());
    EXPECT_FALSE(peer.is_closed(std::chrono::milliseconds(50)));
    EXPECT_TRUE(link.pump_until([&, &peer = peer] { return peer.is_closed(std::chrono::milliseconds(1)); }));
    EXPECT_TRUE(link.server().cuts.empty());
}

} // namespace rtls
