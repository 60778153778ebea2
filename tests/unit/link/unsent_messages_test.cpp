#include "link/unsent_messages.h"

#include "base/czmq_ptr.h"
#include "base/peer.h"
#include "link/sending.h"
#include "link/win_server_win_clients.h"
#include "server/supervision.h"
#include "support/link_clients.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Message number `n`, told apart from the filling that a stalled peer finds before it.
bytes_t numbered(unsigned n)
{
    return {'#', static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n), static_cast<uint8_t>(n)};
}

std::string framed_number(unsigned n)
{
    std::string frame = "\xF5";
    for (const uint8_t b : numbered(n)) {
        if (b >= 0xF5 && b <= 0xF7)
            frame += '\xF6';
        frame += static_cast<char>(b);
    }
    return frame + '\xF7';
}

bytes_t bytes_of(const std::string& text)
{
    return {text.begin(), text.end()};
}

std::string next_of(const unsent_queue& queue, size_t most)
{
    std::vector<uint8_t> room(most);
    room.resize(queue.copy_next(room));
    return {room.begin(), room.end()};
}

// The messages that are complete once `bytes` more of the queue have been sent.
std::vector<std::string> sent_after(unsent_queue& queue, size_t bytes)
{
    std::vector<std::string> sent;
    queue.advance(bytes, [&](bytes_view message, size_t left) {
        sent.push_back(std::string{message.begin(), message.end()} + ' ' + std::to_string(left));
    });
    return sent;
}

// The same, counted as the WIN server counts its clients.
WIN_CLIENT_t* add_unreachable(const win_link& link, uint32_t number)
{
    bytes_t identity{0};
    for (int shift = 24; shift >= 0; shift -= 8)
        identity.push_back(static_cast<uint8_t>(number >> shift));
    const zframe_ptr id{zframe_new(identity.data(), identity.size())};
    win_client_ptr made{win_client_new(id.get())};
    WIN_SERVER_t& server = link.server();
    made->pending_memory.join(server.unfinished_total);
    made->unsent_messages.count_in(server.unsent_total);
    return server.clients.insert(identity_key{identity}.c_str(), std::move(made));
}

constexpr size_t mebibyte = size_t{1024} * 1024;

} // namespace

// --- the queue

TEST(unsent_queue, gives_its_bytes_across_messages_and_blocks)
{
    unsent_queue queue;
    EXPECT_EQ(next_of(queue, 10), "");
    const std::string large(3000, 'l'); // more than the first block has
    for (const std::string& message : {std::string{"one"}, std::string{"two"}, large, std::string{"end"}})
        ASSERT_TRUE(queue.append(bytes_of(message)));
    EXPECT_EQ(next_of(queue, 2), "on");
    EXPECT_EQ(next_of(queue, 7), "onetwol");
    EXPECT_EQ(next_of(queue, 9999), "onetwo" + large + "end");

    EXPECT_THAT(sent_after(queue, 1), IsEmpty());
    EXPECT_EQ(next_of(queue, 4), "netw");
    EXPECT_THAT(sent_after(queue, 4), ElementsAre("one 3"));
    EXPECT_THAT(sent_after(queue, 1 + 2999), ElementsAre("two 2"));
    EXPECT_EQ(next_of(queue, 9), "lend");
    EXPECT_EQ(queue.bytes(), 3003U); // what is sent in part still waits
    EXPECT_THAT(sent_after(queue, 4), ElementsAre(large + " 1", "end 0"));
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.memory(), 0U);
}

TEST(unsent_queue, is_counted_where_it_was_told_to)
{
    memory_sum sum;
    {
        unsent_queue first;
        ASSERT_TRUE(first.append(bytes_of("before")));
        EXPECT_EQ(sum.bytes(), 0U);
        first.count_in(sum);
        EXPECT_EQ(sum.bytes(), first.memory());
        unsent_queue second;
        second.count_in(sum);
        for (int i = 0; i < 20'000; ++i)
            ASSERT_TRUE(second.append(hex("78")));
        EXPECT_EQ(sum.bytes(), first.memory() + second.memory());
        EXPECT_GE(second.memory(), 20'000 * (1 + sizeof(uint32_t)));
        first.clear();
        EXPECT_EQ(sum.bytes(), second.memory());
    }
    EXPECT_EQ(sum.bytes(), 0U);
}

// --- appended, up to the limits

TEST(data_to_cache, keeps_sixteen_mebibytes_and_reports_the_first_loss_alone)
{
    log_capture log;
    const win_link link;
    WIN_CLIENT_t* client = add_unreachable(link, "\0abcd");
    log.take();
    const bytes_t large_message(1024 * 1024, 0x11);
    for (int i = 0; i < 16; ++i)
        ASSERT_TRUE(data_to_cache(&link.server(), client, large_message.data(), large_message.size()));
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
    // What waits already, without a record of each.
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
    EXPECT_EQ(client->unsent_messages.size(), unsent_messages_number_limit);
}

// --- flushed in order

TEST(unsent_messages, go_out_oldest_first_with_a_line_each)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    ASSERT_TRUE(data_to_cache(&link.server(), client, hex("01 02").data(), 2));
    ASSERT_TRUE(data_to_cache(&link.server(), client, hex("F5 F7 00").data(), 3));
    client->unsent_overflow = true;
    log.take();
    EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0);
    EXPECT_EQ(peer.receive(5), std::string("\x01\x02\xF5\xF7\x00", 5));
    EXPECT_EQ(client->unsent_messages.bytes(), 0U);
    EXPECT_FALSE(client->unsent_overflow);
    const std::string tail =
        " 127.0.0.1:" + std::to_string(peer.port()) + " [" + identity_key{client->id}.c_str() + "]";
    EXPECT_THAT(log.messages("raw"),
                ElementsAre("SLIP_RAW_OUTPUT_FROM_CACHE: 0102 [2] cache size: 1" + tail,
                            "SLIP_RAW_OUTPUT_FROM_CACHE: F5F700 [3] cache size: 0" + tail));

    EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0); // nothing waits
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(unsent_messages, of_a_stalled_bridge_wait_in_order_until_it_reads)
{
    constexpr unsigned count = 300;
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    std::string then = link.fill(*client);
    for (unsigned n = 0; n < count; ++n) {
        ASSERT_TRUE(data_to_win_client(&link.server(), client->id, numbered(n).data(), 4));
        then += framed_number(n);
    }
    ASSERT_EQ(client->unsent_messages.size(), count);
    const size_t bytes = client->unsent_messages.bytes();
    {
        log_capture log;
        EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0);
        EXPECT_THAT(log.take(), IsEmpty());
    }
    EXPECT_EQ(client->unsent_messages.size(), count);
    EXPECT_EQ(client->unsent_messages.bytes(), bytes);

    std::string received;
    EXPECT_TRUE(repeat_until([&] { return received.size() >= then.size(); },
                             [&, &peer = peer] {
                                 received += peer.receive_available();
                                 check_clients_unsent_messages(link.loop(), 1, &link.server());
                             }));
    EXPECT_TRUE(received == then) << received.size() << " of " << then.size() << " bytes";
    EXPECT_EQ(client->unsent_messages.bytes(), 0U);
    EXPECT_EQ(client->unsent_messages.size(), 0U);
}

TEST(unsent_messages, of_many_stalled_bridges_cost_the_others_no_time)
{
    const win_link link{10};
    std::vector<win_link::linked_bridge> bridges;
    for (int i = 0; i < 5; ++i) {
        bridges.push_back(link.connect(4096));
        (void)link.fill(*bridges.back().client);
        ASSERT_TRUE(data_to_win_client(&link.server(), bridges.back().client->id, numbered(1).data(), 4));
    }
    zsock_set_sndtimeo(link.server().win_sock, 10000);
    const int64_t start = zclock_mono();
    EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0);
    EXPECT_LT(zclock_mono() - start, 5000) << "not even one time-out";
    for (const auto& bridge : bridges)
        EXPECT_EQ(bridge.client->unsent_messages.size(), 1U);
}

TEST(unsent_messages, beyond_the_ceiling_are_lost_and_reported_once_until_the_cache_is_empty)
{
    log_capture log;
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    const auto* one = reinterpret_cast<const uint8_t*>("x");
    const auto overflow = [&, client = client] {
        unsent_queue& queue = client->unsent_messages;
        ASSERT_TRUE(queue.append(bytes_t(unsent_messages_limit - queue.bytes())));
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(data_to_cache(&link.server(), client, one, 1));
        const bool one_waits = queue.size() == 2;
        queue.clear();
        if (one_waits) {
            ASSERT_TRUE(queue.append({one, 1}));
        }
    };
    const std::string then = "data_to_cache: win client [" + std::string(identity_key{client->id}.c_str()) +
                             "] IP 127.0.0.1:" + std::to_string(peer.port()) +
                             " does not read: 16777216 bytes wait for it, messages are lost!";
    log.take();
    overflow();
    EXPECT_THAT(log.messages("main"), ElementsAre(then));
    ASSERT_TRUE(data_to_cache(&link.server(), client, one, 1)); // room again, but the episode goes on
    overflow();
    EXPECT_THAT(log.messages("main"), IsEmpty());
    unsent_messages_to_win_client(&link.server(), client);
    ASSERT_EQ(client->unsent_messages.size(), 0U);
    overflow();
    EXPECT_THAT(log.messages("main"), ElementsAre(then));
}

// --- of all clients, and in pieces

TEST(unsent_messages, of_all_clients_are_bounded_and_the_largest_holder_gives_way)
{
    const win_link link;
    const auto cache = [&](WIN_CLIENT_t* client, size_t size) {
        const bytes_t message(size, 0x11);
        return data_to_cache(&link.server(), client, message.data(), message.size());
    };
    std::vector<WIN_CLIENT_t*> greedy;
    for (uint32_t i = 0; i < 25; ++i) {
        greedy.push_back(add_unreachable(link, i + 1));
        for (size_t held = 0; held + mebibyte <= 10 * mebibyte; held += mebibyte)
            ASSERT_TRUE(cache(greedy.back(), mebibyte));
    }
    ASSERT_TRUE(cache(greedy[7], mebibyte)); // the largest from now on
    for (int i = 0; i < 4; ++i)              // 255 of 256 MiB, with what the blocks take beside them
        cache(greedy[7], mebibyte);
    log_capture log;
    EXPECT_FALSE(cache(greedy[7], 2 * mebibyte)) << "nobody gives way to the largest itself";
    EXPECT_GT(greedy[7]->unsent_messages.size(), 10U);

    WIN_CLIENT_t* honest = add_unreachable(link, 1000);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(cache(honest, mebibyte));
    EXPECT_EQ(honest->unsent_messages.size(), 3U);
    EXPECT_TRUE(greedy[7]->unsent_messages.empty());
    greedy.erase(greedy.begin() + 7);
    for (const WIN_CLIENT_t* client : greedy)
        EXPECT_EQ(client->unsent_messages.size(), 10U);
    EXPECT_LE(link.server().unsent_total.bytes(), unsent_messages_total_limit + mebibyte);
    const std::vector<std::string> said = log.messages("main");
    ASSERT_EQ(said.size(), 1U);
    EXPECT_THAT(said[0],
                testing::StartsWith("data_to_cache: win client [0000000008] IP 0.0.0.0:0 does not read: "));
}

TEST(unsent_messages, of_a_small_holder_find_room_the_moment_the_largest_has_been_refused)
{
    const win_link link;
    const bytes_t message(mebibyte, 0x11);
    const auto cache = [&](WIN_CLIENT_t* client, const bytes_t& data) {
        return data_to_cache(&link.server(), client, data.data(), data.size());
    };
    for (uint32_t i = 0; i < 24; ++i) {
        WIN_CLIENT_t* greedy = add_unreachable(link, i + 1);
        for (int n = 0; n < 10; ++n)
            ASSERT_TRUE(cache(greedy, message));
    }
    WIN_CLIENT_t* largest = add_unreachable(link, 100);
    while (cache(largest, message)) {
    }
    ASSERT_LT(largest->unsent_messages.bytes(), unsent_messages_limit) << "it is the limit of all";
    // Both in one millisecond of the clock, most times: the host may be busy elsewhere for the others.
    for (uint32_t i = 0; i < 4; ++i) {
        WIN_CLIENT_t* honest = add_unreachable(link, 1000 + i);
        EXPECT_FALSE(cache(largest, message));
        EXPECT_TRUE(cache(honest, message));
        EXPECT_TRUE(largest->unsent_messages.empty()) << "it has given way";
        while (cache(largest, message)) {
        }
        ASSERT_GT(largest->unsent_messages.bytes(), 10 * mebibyte) << "it is the largest again";
    }
}

// A piece may hold thousands of messages, each of which is taken off the queue for itself.
TEST(unsent_messages, of_many_clients_go_out_in_turns)
{
    constexpr size_t clients = 40;
    constexpr size_t pieces = 20;
    const win_link link;
    std::vector<win_link::linked_bridge> bridges;
    const bytes_t message(pieces * stream_piece_limit, 0x11);
    for (size_t i = 0; i < clients; ++i) {
        bridges.push_back(link.connect());
        ASSERT_TRUE(data_to_cache(&link.server(), bridges.back().client, message.data(), message.size()));
    }
    const auto turn = [&] {
        const uint64_t before = link.server().counts.bytes_out.value();
        unsent_messages_to_win_clients(link.server());
        return (link.server().counts.bytes_out.value() - before) / stream_piece_limit;
    };
    EXPECT_EQ(turn(), 256U);
    EXPECT_TRUE(link.server().flush_timer_is_active) << "the others follow soon";
    EXPECT_EQ(turn(), 256U);
    EXPECT_EQ(turn(), (clients - 32) * 16) << "each of the last ones what the socket may hold of it";
    EXPECT_EQ(turn(), clients * 4) << "and then the rest of all";
    for (const auto& bridge : bridges)
        EXPECT_TRUE(bridge.client->unsent_messages.empty());
}

TEST(unsent_messages, larger_than_a_piece_arrive_whole_and_in_order)
{
    const win_link link{2}; // two pieces are all that the socket takes at once
    auto [peer, client] = link.connect();
    std::string expected;
    for (const size_t size : {mebibyte / 2, size_t{1}, stream_piece_limit, stream_piece_limit - 2}) {
        const bytes_t message(size, static_cast<uint8_t>('a' + size % 7));
        EXPECT_LT(data_to_bridge(link.server(), frame_bytes(client->id), message), delivery::no_bridge);
        const bytes_t frame = framed(message);
        expected.append(frame.begin(), frame.end());
    }
    std::string received;
    ASSERT_TRUE(link.pump_until([&, &peer = peer] {
        unsent_messages_to_win_clients(link.server());
        (void)peer.receive_more(received, std::chrono::milliseconds{1});
        return received.size() >= expected.size();
    }));
    EXPECT_EQ(received, expected);
    EXPECT_TRUE(client->unsent_messages.empty());
}

TEST(unsent_messages, are_offered_again_soon_where_the_socket_was_only_short_of_room)
{
    const win_link link{1};
    auto [peer, client] = link.connect();
    const bytes_t message(40 * stream_piece_limit, 0x11);
    ASSERT_LT(data_to_bridge(link.server(), frame_bytes(client->id), message), delivery::no_bridge);
    ASSERT_FALSE(client->unsent_messages.empty());
    EXPECT_TRUE(link.server().flush_timer_is_active);
    struct watch {
        WIN_SERVER_t* server;
        WIN_CLIENT_t* client;
        tcp_peer* peer;
        std::string received;
    } watch{&link.server(), client, &peer, {}};
    zloop_timer(
        link.loop(), 1, 0,
        [](zloop_t*, int, void* argument) {
            auto& [server, waiting, reader, received] = *static_cast<struct watch*>(argument);
            (void)reader->receive_more(received, std::chrono::milliseconds{1});
            // On a busy machine the library's thread may have got nowhere in the few milliseconds. Then the
            // usual time comes, and with the first piece that is taken the short one again.
            if (!server->flush_timer_is_active && !waiting->unsent_messages.empty()) {
                const uint64_t before = server->counts.bytes_out.value();
                unsent_messages_to_win_clients(*server);
                const bool has_taken_some = server->counts.bytes_out.value() > before;
                EXPECT_EQ(server->flush_timer_is_active, has_taken_some && !waiting->unsent_messages.empty());
            }
            return waiting->unsent_messages.empty() ? -1 : 0;
        },
        &watch);
    zloop_start(link.loop());
    EXPECT_EQ(watch.received.size() + peer.receive(message.size() + 2 - watch.received.size()).size(),
              message.size() + 2);
}

// --- unfinished frames

TEST(unfinished_frames, of_all_clients_are_bounded_and_the_largest_is_given_up)
{
    log_capture log;
    const win_link link;
    const auto begin_frame = [&](WIN_CLIENT_t* client, size_t size) {
        const bytes_t start = hex("F5");
        const bytes_t part(8192, 0x11);
        parse_data_from_win_client(&link.server(), client, start.data(), start.size());
        for (size_t done = 0; done < size; done += part.size())
            parse_data_from_win_client(&link.server(), client, part.data(), part.size());
    };
    const size_t number = pending_data_total_limit / mebibyte;
    std::vector<WIN_CLIENT_t*> greedy;
    for (uint32_t i = 0; i < number + 20; ++i) {
        greedy.push_back(add_unreachable(link, i + 1));
        begin_frame(greedy.back(), mebibyte - 8192);
        ASSERT_LE(link.server().unfinished_total.bytes(), pending_data_total_limit + 8192);
    }
    WIN_CLIENT_t* honest = add_unreachable(link, 1000);
    begin_frame(honest, size_t{128} * 1024);
    EXPECT_EQ(honest->parsing_state, PS_DATA);
    EXPECT_EQ(honest->pending_data_size, size_t{128} * 1024);
    const auto given_up = std::count_if(greedy.begin(), greedy.end(), [](const WIN_CLIENT_t* client) {
        return client->parsing_state == PS_NONE && client->pending_buffsize == pending_data_step;
    });
    EXPECT_GE(given_up, 20);
    EXPECT_LE(given_up, 23);
    EXPECT_THAT(log.messages("main"),
                ElementsAre(testing::HasSubstr("the unfinished messages of all win clients take too much")));
}

TEST(unfinished_frames, that_were_long_give_their_memory_back_when_they_are_complete)
{
    const win_link link;
    WIN_CLIENT_t* client = add_unreachable(link, 1);
    const bytes_t frame = framed(hex("FF FF 01") + bytes_t(mebibyte / 2, 0x11));
    parse_data_from_win_client(&link.server(), client, frame.data(), frame.size());
    EXPECT_EQ(client->parsing_state, PS_NONE);
    EXPECT_EQ(link.server().unfinished_total.bytes(), pending_data_kept);
    EXPECT_LE(client->pending_data_size, pending_data_kept);
}

} // namespace rtls
