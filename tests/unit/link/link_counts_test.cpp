// What the link counts: frames that are lost, messages for bridges, connections, and reports that wait.
#include "base/peer.h"
#include "link/sending.h"
#include "link/upstream_queue.h"
#include "link/win_clients.h"
#include "server/supervision.h"
#include "support/hex_bytes.h"
#include "support/sock.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace rtls {

namespace {

// Bytes through a decoder that counts.
class counting_decoder {
public:
    counting_decoder()
    {
        const zframe_ptr id{zframe_new("\0abcd", 5)};
        m_client.reset(win_client_new(id.get()));
        m_client->counts = &counts;
    }
    void feed(const bytes_t& bytes)
    {
        win_client_decode(*m_client, bytes, [this](WIN_CLIENT_t&) { ++frames; });
    }
    void give_up() { win_client_give_up_frame(*m_client); }
    uint64_t lost(frame_loss why) const { return counts.lost[why].value(); }

    decoder_counters counts;
    int frames = 0;

private:
    win_client_ptr m_client;
};

} // namespace

TEST(decoder_counts, frames_in_order_lose_nothing)
{
    counting_decoder decoder;
    decoder.feed(hex("F5 01 02 F7 F5 F6 F5 F7"));
    EXPECT_EQ(decoder.frames, 2);
    EXPECT_EQ(decoder.counts.noise.value() + decoder.counts.lost.sum(), 0U);
}

TEST(decoder_counts, bytes_outside_of_frames_are_noise)
{
    counting_decoder decoder;
    decoder.feed(hex("00 F7 F6 F5 01 F7 11 12 F5 01 F7 13"));
    EXPECT_EQ(decoder.counts.noise.value(), 6U);
    EXPECT_EQ(decoder.counts.lost.sum(), 0U);
}

TEST(decoder_counts, frames_that_are_restarted_or_empty)
{
    counting_decoder decoder;
    decoder.feed(hex("F5 01 F5 02 F7 F5 F7 F5 F5 03 F7")); // a START behind a START restarts nothing
    EXPECT_EQ(decoder.frames, 2);
    EXPECT_EQ(decoder.lost(frame_loss::restarted), 1U);
    EXPECT_EQ(decoder.lost(frame_loss::empty), 1U);
    EXPECT_EQ(decoder.counts.lost.sum(), 2U);
}

TEST(decoder_counts, a_frame_beyond_the_limit_is_too_long_and_its_rest_is_noise)
{
    counting_decoder decoder;
    decoder.feed(hex("F5"));
    decoder.feed(bytes_t(pending_data_limit, 1));
    EXPECT_EQ(decoder.counts.lost.sum(), 0U);
    decoder.feed(bytes_t(3, 1));
    EXPECT_EQ(decoder.lost(frame_loss::too_long), 1U);
    decoder.feed(bytes_t(5, 1));
    EXPECT_EQ(decoder.counts.noise.value(), 5U);
    EXPECT_EQ(decoder.counts.lost.sum(), 1U);
}

// The room of a bridge that takes most may be that of a frame which has ended, or was lost already.
TEST(decoder_counts, only_a_frame_at_hand_is_given_up)
{
    counting_decoder decoder;
    decoder.give_up();
    decoder.feed(hex("F5 01 02 F7"));
    decoder.give_up();
    decoder.feed(hex("F5"));
    decoder.feed(bytes_t(pending_data_limit + 1, 1));
    EXPECT_EQ(decoder.lost(frame_loss::too_long), 1U);
    decoder.give_up();
    EXPECT_EQ(decoder.lost(frame_loss::given_up), 0U);
    decoder.feed(hex("F5 01"));
    decoder.give_up();
    decoder.feed(hex("F5 F6"));
    decoder.give_up();
    EXPECT_EQ(decoder.lost(frame_loss::given_up), 2U);
    EXPECT_EQ(decoder.counts.lost.sum(), 3U);
}

TEST(bridge_counts, connections_and_what_they_end_with)
{
    win_link link;
    const win_counters& counts = link.server().counts;
    {
        auto one = link.connect();
        auto two = link.connect();
        EXPECT_EQ(counts.bridges_accepted.value(), 2U);
        EXPECT_EQ(counts.bytes_out.value(), 10U); // "sync\n" twice
        one.peer.send(hex("F5 01"));
        ASSERT_TRUE(link.pump_until([&] { return counts.bytes_in.value() == 2; }));
    }
    ASSERT_TRUE(link.pump_until([&] { return link.clients() == 0; }));
    EXPECT_EQ(counts.bridges_closed[bridge_end::peer].value(), 2U);
    EXPECT_EQ(counts.events[bridge_event::connected].value(), 2U);
    EXPECT_EQ(counts.events[bridge_event::disconnected].value(), 2U);
    EXPECT_EQ(counts.events[bridge_event::data].value(), 1U);
    EXPECT_EQ(counts.events.sum(), 5U);
    EXPECT_EQ(counts.decoder.lost[frame_loss::unfinished].value(), 1U);
}

TEST(bridge_counts, a_message_is_sent_or_cached_and_flushed_or_lost)
{
    win_link link{4};
    const win_counters& counts = link.server().counts;
    auto bridge = link.connect(4096);
    const bytes_t message(100, 1);
    EXPECT_EQ(data_to_bridge(link.server(), frame_bytes(bridge.client->id), message), delivery::sent);
    EXPECT_EQ(counts.bridge_messages_sent.value(), 1U);
    const std::string before = link.fill(*bridge.client);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(data_to_bridge(link.server(), frame_bytes(bridge.client->id), message), delivery::cached);
    EXPECT_EQ(counts.bridge_messages_cached.value(), 3U);
    EXPECT_EQ(counts.bridge_messages_flushed.value(), 0U);
    bridge.peer.receive(102 + before.size());
    ASSERT_TRUE(repeat_until([&] { return bridge.client->unsent_messages.empty(); },
                             [&] { unsent_messages_to_win_clients(link.server()); }));
    EXPECT_EQ(counts.bridge_messages_flushed.value(), 3U);
    EXPECT_EQ(counts.bridge_messages_lost.sum(), 0U);
    EXPECT_EQ(counts.bridge_messages_sent.value(), 1U);
}

TEST(bridge_counts, what_finds_no_room_is_lost)
{
    win_link link;
    const win_counters& counts = link.server().counts;
    auto bridge = link.connect();
    const bytes_t message(unsent_messages_limit, 1);
    EXPECT_TRUE(data_to_cache(&link.server(), bridge.client, message.data(), message.size()));
    EXPECT_FALSE(data_to_cache(&link.server(), bridge.client, message.data(), 1));
    EXPECT_EQ(counts.bridge_messages_cached.value(), 1U);
    EXPECT_EQ(counts.bridge_messages_lost[bridge_message_loss::queue_full].value(), 1U);
    delete_win_client(&link.server(), bridge.client->id);
    EXPECT_EQ(counts.bridge_messages_lost[bridge_message_loss::bridge_closed].value(), 1U);
}

TEST(upstream_counts, what_waits_is_counted_when_it_leaves_or_is_given_up)
{
    const std::string endpoint = new_endpoint();
    const zsock_ptr server{zsock_new(ZMQ_PULL)};
    const zsock_ptr sender{zsock_new(ZMQ_PUSH)};
    zsock_set_sndhwm(sender.get(), 1);
    zsock_set_rcvhwm(server.get(), 1);
    zsock_bind(server.get(), "%s", endpoint.c_str());
    zsock_connect(sender.get(), "%s", endpoint.c_str());
    void* socket = zsock_resolve(sender.get());
    upstream_queue queue{"Overflow!", "Exemption!", "some queue", "function", "call"};
    const auto send = [&](bool may_wait) {
        message_part part{bytes_view{}};
        queue.send(socket, part, nullptr, may_wait);
    };
    const upstream_counters& counts = queue.counts();
    const auto late = [&] {
        uint64_t all = 0;
        for (size_t range = 0; range < time_counts::ranges; ++range)
            all += counts.after_wait.in_range(range);
        return all;
    };

    while (counts.waiting.value() == 0)
        send(true);
    const uint64_t room = counts.at_once.value();
    send(true);
    EXPECT_EQ(counts.waiting.value(), 2U);
    EXPECT_EQ(counts.lost.sum(), 0U);

    message_part taken;
    for (uint64_t i = 0; i < room + 2; ++i) {
        ASSERT_TRUE(taken.receive(zsock_resolve(server.get())));
        queue.retry(socket);
    }
    EXPECT_EQ(counts.waiting.value(), 0U);
    EXPECT_EQ(counts.at_once.value(), room);
    EXPECT_EQ(late(), 2U);

    while (counts.waiting.value() == 0)
        send(true);
    queue.give_up();
    EXPECT_EQ(counts.waiting.value(), 0U);
    EXPECT_EQ(counts.lost[upstream_loss::waited_in_vain].value(), 1U);
    send(false);
    EXPECT_EQ(counts.lost[upstream_loss::overflow].value(), 1U);
    queue.lose_unmade();
    EXPECT_EQ(counts.lost[upstream_loss::out_of_memory].value(), 1U);
}

} // namespace rtls
