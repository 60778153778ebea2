#include "link/client_table.h"

#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/peer.h"
#include "link/sending.h"
#include "link/win_server_win_clients.h"
#include "server/win_server.h"
#include "support/hex_bytes.h"
#include "support/link_clients.h"
#include "support/processor_time.h"
#include "support/sanitizers.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace rtls {

namespace {

// As the library numbers its connections.
bytes_t identity_of(uint32_t number)
{
    bytes_t identity(5);
    store_be32(identity, 1, number);
    return identity;
}

win_client_ptr record_of(const bytes_t& identity)
{
    const zframe_ptr id{zframe_new(identity.data(), identity.size())};
    return win_client_ptr{win_client_new(id.get())};
}

std::vector<std::string> order_of(zhashx_t* records)
{
    std::vector<std::string> keys;
    for (void* item = zhashx_first(records); item; item = zhashx_next(records))
        keys.emplace_back(static_cast<const char*>(zhashx_cursor(records)));
    return keys;
}

win_client_ptr record(const char* address = "0.0.0.0")
{
    const zframe_ptr id{zframe_new("\0abcd", 5)};
    win_client_ptr made{win_client_new(id.get())};
    inet_pton(AF_INET, address, &made->addr.sin_addr);
    return made;
}

in_addr address_of(const char* text)
{
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return address;
}

} // namespace

TEST(client_table, has_one_record_a_key)
{
    client_table table;
    ASSERT_TRUE(table.is_made());
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(table.find("01"), nullptr);
    win_client_ptr first = record();
    WIN_CLIENT_t* const stored = first.get();
    EXPECT_EQ(table.insert("01", std::move(first)), stored);
    EXPECT_EQ(table.find("01"), stored);
    EXPECT_EQ(table.insert("01", record()), nullptr) << "the key is taken";
    EXPECT_EQ(table.find("01"), stored);
    EXPECT_NE(table.insert("02", record()), nullptr);
    EXPECT_EQ(table.size(), 2U);
    table.erase("01");
    table.erase("03"); // there is none
    EXPECT_EQ(table.find("01"), nullptr);
    EXPECT_EQ(table.size(), 1U);
}

TEST(client_table, counts_the_connections_of_an_address)
{
    client_table table;
    (void)table.insert("01", record("10.0.0.1"));
    (void)table.insert("02", record("10.0.0.1"));
    (void)table.insert("03", record("10.0.0.2"));
    EXPECT_EQ(table.insert("03", record("10.0.0.2")), nullptr); // not counted
    EXPECT_EQ(table.size_of_address(address_of("10.0.0.1")), 2U);
    EXPECT_EQ(table.size_of_address(address_of("10.0.0.2")), 1U);
    EXPECT_EQ(table.size_of_address(address_of("10.0.0.3")), 0U);
    table.erase("01");
    EXPECT_EQ(table.size_of_address(address_of("10.0.0.1")), 1U);
}

TEST(client_table, has_one_record_an_identity)
{
    client_table table;
    EXPECT_EQ(table.find(identity_of(1)), nullptr);
    WIN_CLIENT_t* const first = table.insert("0000000001", record_of(identity_of(1)));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(table.find(identity_of(1)), first);
    EXPECT_EQ(table.find(identity_of(0x01000001)), nullptr) << "the same last bits";
    WIN_CLIENT_t* const second = table.insert("0001000001", record_of(identity_of(0x01000001)));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(table.find(identity_of(1)), first);
        EXPECT_EQ(table.find(identity_of(0x01000001)), second);
    }
    table.erase("0000000001");
    EXPECT_EQ(table.find(identity_of(1)), nullptr);
    EXPECT_EQ(table.find(identity_of(0x01000001)), second);
}

TEST(client_table, knows_identities_that_are_no_number)
{
    client_table table;
    for (const char* identity : {"11", "0011223344556677", "FF00000001"}) {
        SCOPED_TRACE(identity);
        WIN_CLIENT_t* const stored = table.insert(identity, record_of(hex(identity)));
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(table.find(hex(identity)), stored);
    }
    EXPECT_EQ(table.find(identity_of(1)), nullptr);
    EXPECT_EQ(table.find(bytes_view{}), nullptr);
}

// Operators see the order. Look-ups make it, too: also those that are answered by what an earlier one has found.
TEST(client_table, is_in_the_order_of_a_zhashx_after_any_operations)
{
    for (unsigned seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random{seed};
        client_table table;
        const zhashx_ptr reference{zhashx_new()};
        const auto first = static_cast<uint32_t>(random());
        std::set<uint32_t> present;
        for (int i = 0; i < 6000; ++i) {
            const uint32_t number = first + static_cast<uint32_t>(random() % (8U << seed / 3));
            const std::string key = to_hex(identity_of(number));
            switch (random() % 100) { // mostly look-ups: what one has moved, the next may move again
            case 0:
            case 1:
                EXPECT_EQ(table.insert(key.c_str(), record_of(identity_of(number))) != nullptr,
                          zhashx_insert(reference.get(), key.c_str(), &present) == 0);
                present.insert(number);
                break;
            case 2:
                table.erase(key.c_str());
                (void)zhashx_lookup(reference.get(), key.c_str()); // as erase does
                zhashx_delete(reference.get(), key.c_str());
                present.erase(number);
                break;
            default:
                EXPECT_EQ(table.find(identity_of(number)) != nullptr, present.contains(number));
                zhashx_lookup(reference.get(), key.c_str());
            }
            ASSERT_EQ(order_of(table.unguarded()), order_of(reference.get())) << i;
        }
    }
}

TEST(client_table, is_walked_in_its_own_order_and_unlocked)
{
    client_table table;
    for (int i = 0; i < 100; ++i)
        ASSERT_NE(table.insert(std::to_string(i).c_str(), record()), nullptr);
    std::vector<const WIN_CLIENT_t*> expected;
    for (void* item = zhashx_first(table.unguarded()); item; item = zhashx_next(table.unguarded()))
        expected.push_back(static_cast<WIN_CLIENT_t*>(item));
    std::vector<const WIN_CLIENT_t*> visited;
    table.for_each([&](WIN_CLIENT_t& client) {
        visited.push_back(&client);
        EXPECT_EQ(table.size(), 100U); // takes the lock
    });
    EXPECT_EQ(visited, expected);
}

// --- copies for other threads

// The whole of it under the lock: short enough for as many bridges as a site has.
TEST(client_table, is_copied_within_a_millisecond_with_a_thousand_bridges)
{
    client_table table;
    for (unsigned number = 0; number < 1000; ++number)
        ASSERT_TRUE(table.insert(std::to_string(number).c_str(), record()));
    auto shortest = std::chrono::nanoseconds::max();
    for (int round = 0; round < 5; ++round) {
        const auto began = processor_time();
        EXPECT_EQ(table.copy().size(), 1000U);
        shortest = std::min(shortest, processor_time() - began);
    }
    EXPECT_LT(shortest, slowness * std::chrono::milliseconds{1});
}

namespace {

// The longest time on the processor between two lots of clients, under the lock and a little more.
std::chrono::nanoseconds longest_hold(client_table& table)
{
    constexpr size_t lot = 1024;
    std::chrono::nanoseconds longest{};
    std::chrono::nanoseconds last = processor_time();
    size_t visited = 0;
    table.visit_in_slices([&](const WIN_CLIENT_t&) {
        if (++visited % lot != 0)
            return;
        longest = std::max(longest, processor_time() - last);
        last = processor_time();
    });
    return longest;
}

void fill(client_table& table, unsigned from, unsigned number)
{
    for (unsigned i = from; i < from + number; ++i)
        ASSERT_TRUE(table.insert(std::to_string(i).c_str(), record()));
}

} // namespace

// Whoever looks from outside lets the WIN server's thread in between, however many bridges there are.
TEST(client_table, is_visited_in_slices_of_less_than_a_millisecond)
{
    client_table table;
    fill(table, 0, 20'000);
    const auto bound = slowness * std::chrono::milliseconds{1};
    auto shortest = longest_hold(table);
    for (int i = 0; shortest >= bound && i < 50; ++i) // the host may have others to serve
        shortest = std::min(shortest, longest_hold(table));
    EXPECT_LT(shortest, bound);
    EXPECT_EQ(table.copy_in_slices().size(), 20'000U);
}

TEST(client_table, lets_others_in_between_slices)
{
    client_table table;
    fill(table, 0, 20'000);
    size_t visited = 0;
    std::atomic<size_t> let_in{0};
    std::atomic<bool> is_over{false};
    std::thread other{[&] {
        while (!is_over) {
            const std::unique_lock guard{table.mutex()};
            let_in += visited > 0 && visited < 20'000 ? 1 : 0;
        }
    }};
    for (int i = 0; let_in == 0 && i < 1000; ++i) { // it may not have begun, or be kept waiting by the host
        {
            const std::unique_lock guard{table.mutex()};
            visited = 0;
        }
        table.visit_in_slices([&](const WIN_CLIENT_t&) { ++visited; });
        EXPECT_EQ(visited, 20'000U);
    }
    is_over = true;
    other.join();
    EXPECT_GT(let_in, 0U);
}

TEST(client_table, is_visited_once_and_whole_while_it_changes)
{
    client_table table;
    fill(table, 0, 5'000);
    for (unsigned i = 0; i < 5'000; i += 3)
        table.erase(std::to_string(i).c_str());
    EXPECT_EQ(table.copy_in_slices().size(), table.size());
    fill(table, 10'000, 1'000); // where some were
    std::set<const WIN_CLIENT_t*> all;
    table.visit_in_slices([&](const WIN_CLIENT_t& client) { EXPECT_TRUE(all.insert(&client).second); });
    EXPECT_EQ(all.size(), table.size());
}

TEST(client_table, knows_one_client_by_its_identity)
{
    client_table table;
    fill(table, 0, 10);
    WIN_CLIENT_t* client = table.insert("here", record("10.0.0.9"));
    ASSERT_TRUE(client);
    const bytes_t identity = hex("00 61 62 63 65");
    zframe_reset(client->id, identity.data(), identity.size());
    const auto info = table.find_info(identity);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->addr.sin_addr.s_addr, address_of("10.0.0.9").s_addr);
    EXPECT_EQ(bytes_t(info->id.view().begin(), info->id.view().end()), identity);
    EXPECT_FALSE(table.find_info(hex("00 61 62 63 66")));
}

TEST(win_server_copy_clients, gives_what_other_threads_may_know)
{
    const win_link link;
    EXPECT_TRUE(win_server_copy_clients(link.server()).empty());
    std::vector<win_link::linked_bridge> bridges;
    for (uint8_t i = 0; i < 5; ++i) {
        bridges.push_back(link.connect());
        const uint8_t mac[mac_size] = {1, 2, 3, 4, 5, 6, 7, i};
        link.server().clients.set_mac_addr(*bridges.back().client, mac);
    }
    const auto copies = win_server_copy_clients(link.server());
    ASSERT_EQ(copies.size(), bridges.size());
    for (const auto& copy : copies) {
        const WIN_CLIENT_t* client = link.find(ntohs(copy.addr.sin_port));
        ASSERT_NE(client, nullptr);
        EXPECT_TRUE(std::ranges::equal(copy.id.view(), frame_bytes(client->id)));
        EXPECT_EQ(bytes_t(copy.mac_addr, copy.mac_addr + mac_size),
                  bytes_t(client->mac_addr, client->mac_addr + mac_size));
        EXPECT_EQ(copy.addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    }
    EXPECT_EQ(link.clients(), bridges.size()) << "the copy has not destroyed the records";
}

// A look-up may give the table new buckets and free the old ones, which a copy walks.
TEST(win_server_copy_clients, keeps_look_ups_out_of_the_table)
{
    const win_link link;
    auto [peer, client] = link.connect();
    peer.send(hex("F5 00 00 05 AA F7"));
    zmq_pollitem_t item{zsock_resolve(link.server().win_sock), 0, ZMQ_POLLIN, 0};
    ASSERT_EQ(zmq_poll(&item, 1, static_cast<long>(patience.count())), 1);
    const zframe_ptr stranger{zframe_new("\0abcd", 5)};
    const uint8_t message = 1;
    const struct {
        const char* given;
        std::function<void()> look_up;
    } cases[] = {
        {"a message for a client",
         [&] { EXPECT_FALSE(data_to_win_client(&link.server(), stranger.get(), &message, 1)); }},
        {"an event of a connection",
         [&] { EXPECT_EQ(handle_win_clients(link.loop(), link.server().win_sock, &link.server()), 0); }},
    };
    for (const auto& c : cases) {
        std::unique_lock copying{link.server().clients.mutex()};
        auto done = std::async(std::launch::async, c.look_up);
        EXPECT_EQ(done.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout) << c.given;
        copying.unlock();
        done.get();
    }
}

TEST(win_server_copy_clients, is_safe_while_bridges_come_and_go)
{
    test_gateway gateway;
    gateway.run_win_server();
    std::atomic<bool> done{false};
    std::thread reader{[&] {
        while (!done)
            for (const auto& copy : win_server_copy_clients(gateway.win_server())) {
                ASSERT_EQ(copy.id.size, 5U);
                ASSERT_NE(copy.addr.sin_port, 0);
            }
    }};
    const bytes_t panid_request = hex("F5 01 01 01 A0 A1 A2 A3 A4 A5 A6 A7 F7"); // names the bridge
    for (int round = 0; round < 100; ++round) {
        std::vector<tcp_peer> peers;
        for (int i = 0; i < 5; ++i)
            peers.emplace_back(gateway.win_port());
        for (auto& peer : peers) {
            EXPECT_EQ(peer.receive(5), "sync\n");
            peer.send(panid_request);
        }
    }
    done = true;
    reader.join();
    EXPECT_TRUE(wait_until([&] { return win_server_copy_clients(gateway.win_server()).empty(); }));
}

} // namespace rtls
