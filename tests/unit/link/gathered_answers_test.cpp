#include "link/gathered_answers.h"

#include "link/sending.h"
#include "link/win_server_win_clients.h"
#include "support/link_clients.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace rtls {

namespace {

bytes_t numbered_ping(size_t number)
{
    return hex("00 00") + bytes_t{static_cast<uint8_t>(number % 200), static_cast<uint8_t>(number / 200)};
}

} // namespace

TEST(gathered_answers, leave_in_few_pieces_whole_and_in_order)
{
    const win_link link{2}; // sent one by one, most of them would have to wait
    auto [peer, client] = link.connect();
    bytes_t stream;
    for (size_t i = 0; i < 300; ++i)
        stream = stream + framed(numbered_ping(i));
    begin_answers(link.server(), *client);
    parse_data_from_win_client(&link.server(), client, stream.data(), stream.size());
    EXPECT_TRUE(client->unsent_messages.empty());
    EXPECT_FALSE(link.server().answers.empty());
    end_answers(link.server());
    EXPECT_TRUE(client->unsent_messages.empty()) << client->unsent_messages.size();
    const std::string received = peer.receive(stream.size());
    EXPECT_EQ(received, std::string(stream.begin(), stream.end()));
}

TEST(gathered_answers, come_after_what_waits)
{
    const win_link link;
    auto [peer, client] = link.connect();
    ASSERT_TRUE(data_to_cache(&link.server(), client, reinterpret_cast<const uint8_t*>("old "), 4));
    const bytes_t stream = framed(numbered_ping(1)) + framed(numbered_ping(2));
    peer.send(stream);
    ASSERT_TRUE(link.pump_until([&, client = client] { return client->unsent_messages.empty(); }));
    EXPECT_EQ(peer.receive(4 + stream.size()), "old " + std::string(stream.begin(), stream.end()));
}

TEST(gathered_answers, that_the_socket_refuses_wait_one_by_one)
{
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    const std::string before = link.fill(*client);
    bytes_t stream;
    for (size_t i = 0; i < 20; ++i)
        stream = stream + framed(numbered_ping(i));
    begin_answers(link.server(), *client);
    parse_data_from_win_client(&link.server(), client, stream.data(), stream.size());
    end_answers(link.server());
    EXPECT_EQ(client->unsent_messages.size(), 20U);
    const bytes_view first = client->unsent_messages.front();
    EXPECT_EQ(bytes_t(first.begin(), first.end()), framed(numbered_ping(0)));
    std::string received;
    ASSERT_TRUE(link.pump_until([&, &peer = peer] {
        unsent_messages_to_win_clients(link.server());
        (void)peer.receive_more(received, std::chrono::milliseconds{1});
        return received.size() >= before.size() + stream.size();
    }));
    EXPECT_EQ(received, before + std::string(stream.begin(), stream.end()));
}

} // namespace rtls
