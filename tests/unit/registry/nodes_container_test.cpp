#include "registry/nodes_container.h"

#include "support/log_capture.h"
#include "support/registry_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace rtls {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

using nodes_container = registry_fixture;

TEST_F(nodes_container, starts_empty)
{
    EXPECT_EQ(nodes_container_get_size(nodes), 0U);
    EXPECT_EQ(nodes_container_get_first(nodes), nullptr);
    EXPECT_EQ(nodes_container_get_next(nodes), nullptr);
    EXPECT_EQ(find(mac_of(0)), nullptr);
    EXPECT_EQ(nodes_container_find_by_short_mac(nodes, 0, 0), nullptr);
    EXPECT_EQ(find_ip({}), nullptr);
    nodes_container_update_lifetime(nodes);
    nodes_container_delete(nodes, mac_of(0).data());
    EXPECT_EQ(nodes_container_get_size(nodes), 0U);
}

TEST_F(nodes_container, destroy_leaves_null_and_takes_it)
{
    log_capture log;
    create(mac_of(1));
    nodes_container_destroy(&nodes);
    EXPECT_EQ(nodes, nullptr);
    nodes_container_destroy(&nodes);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST_F(nodes_container, a_new_node_is_all_zeros_but_its_mac)
{
    const NODE_t* node = create(mac_of(0x0102030405060708));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(mac_of(*node), mac_of(0x0102030405060708));
    EXPECT_EQ(node->win_client_id, nullptr);
    EXPECT_THAT(node->last_data, IsEmpty());
    EXPECT_THAT(node->ip_addr, Each(0));
    EXPECT_THAT(node->parent_addr, Each(0));
    for (const timeval& time : {node->last_activity, node->last_data_time}) {
        EXPECT_EQ(time.tv_sec, 0);
        EXPECT_EQ(time.tv_usec, 0);
    }
    const std::vector<uint64_t> unsigned_fields = {
        node->lifetime,       node->sw_version,     node->type,  node->ranging_freq,
        node->reporting_freq, node->sublocation_id, node->state, node->forwarded_ip,
        node->direct_mask,    node->sequence_number};
    EXPECT_THAT(unsigned_fields, Each(0U));
    EXPECT_THAT((std::array{node->pos_X, node->pos_Y, node->pos_Z}), Each(0));
}

TEST_F(nodes_container, nodes_are_found_by_their_whole_mac)
{
    const uint64_t numbers[] = {0x0000000000000000, 0x0000000000000001, 0x0100000000000000,
                                0x0102030405060708, 0x0807060504030201, 0xFFFFFFFFFFFFFFFF,
                                0xE400000000000100, 0xE400000000010000};
    std::map<mac_array, NODE_t*> created;
    for (const uint64_t number : numbers)
        created[mac_of(number)] = create(mac_of(number));
    EXPECT_EQ(nodes_container_get_size(nodes), std::size(numbers));
    for (const auto& [mac, node] : created) {
        EXPECT_EQ(find(mac), node);
        EXPECT_EQ(create(mac), node);
    }
    EXPECT_EQ(find(mac_of(2)), nullptr);
    EXPECT_EQ(nodes_container_get_size(nodes), std::size(numbers));
}

TEST_F(nodes_container, the_mac_alone_decides)
{
    NODE_t* node = create(mac_of(5));
    node->lifetime = 300;
    node->type = 4;
    set_address(node, ip_of(1));
    EXPECT_EQ(find(mac_of(5)), node);
}

TEST_F(nodes_container, a_repeated_sequence_number_is_a_duplicate)
{
    const struct {
        const char* given;
        int number; // -1: none
        bool passes;
        uint8_t stored;
    } calls[] = {
        {"a new node does not take the number over", 7, true, 0},
        {"so its second message passes with the same one", 7, true, 7},
        {"the third is a duplicate", 7, false, 7},
        {"without a number there is no check", -1, true, 7},
        {"another number passes", 8, true, 8},
        {"an older one, too", 7, true, 7},
        {"0 is a number like any other", 0, true, 0},
        {"and repeats, too", 0, false, 0},
    };
    NODE_t* node = nullptr;
    for (const auto& c : calls) {
        SCOPED_TRACE(c.given);
        const auto number = static_cast<uint8_t>(c.number);
        NODE_t* found = nodes_container_find_or_create_by_mac(nodes, mac_of(9).data(),
                                                              c.number < 0 ? nullptr : &number, 0x0104);
        if (!node)
            node = found;
        EXPECT_EQ(found, c.passes ? node : nullptr);
        EXPECT_EQ(node->sequence_number, c.stored);
    }
}

TEST_F(nodes_container, a_new_nodes_second_message_with_number_0_is_a_duplicate)
{
    const uint8_t zero = 0;
    EXPECT_NE(nodes_container_find_or_create_by_mac(nodes, mac_of(9).data(), &zero, 0x0104), nullptr);
    EXPECT_EQ(nodes_container_find_or_create_by_mac(nodes, mac_of(9).data(), &zero, 0x010F), nullptr);
}

TEST_F(nodes_container, delete_removes_one_node)
{
    create(mac_of(1));
    create(mac_of(2));
    create(mac_of(3));
    nodes_container_delete(nodes, mac_of(2).data());
    nodes_container_delete(nodes, mac_of(4).data());
    EXPECT_EQ(nodes_container_get_size(nodes), 2U);
    EXPECT_EQ(find(mac_of(2)), nullptr);
    EXPECT_NE(find(mac_of(1)), nullptr);
    EXPECT_NE(find(mac_of(3)), nullptr);
    EXPECT_EQ(create(mac_of(2))->sequence_number, 0);
    EXPECT_EQ(nodes_container_get_size(nodes), 3U);
}

TEST_F(nodes_container, delete_takes_the_mac_of_the_node_itself)
{
    const NODE_t* node = create(mac_of(1));
    nodes_container_delete(nodes, node->mac_addr);
    EXPECT_EQ(nodes_container_get_size(nodes), 0U);
}

TEST_F(nodes_container, the_short_mac_finds_the_first_node_in_table_order)
{
    std::mt19937_64 random(3);
    for (int i = 0; i < 400; ++i)
        create(mac_of(random() & ~uint64_t{0xE0E0}));
    const auto order = in_order();
    for (unsigned hi = 0; hi < 33; ++hi)
        for (unsigned lo = 0; lo < 33; ++lo) {
            const auto first = std::find_if(order.begin(), order.end(), [&](const mac_array& mac) {
                return mac[6] == hi && mac[7] == lo;
            });
            const NODE_t* found =
                nodes_container_find_by_short_mac(nodes, static_cast<uint8_t>(hi), static_cast<uint8_t>(lo));
            ASSERT_EQ(found != nullptr, first != order.end()) << hi << " " << lo;
            if (found) {
                ASSERT_EQ(mac_of(*found), *first) << hi << " " << lo;
            }
        }
}

TEST_F(nodes_container, the_handle_is_the_mutex)
{
    auto* mutex = static_cast<pthread_mutex_t*>(nodes);
    {
        const nodes_guard guard{container()};
        EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
    nodes_container_unlock(nodes);
    nodes_container_lock(nodes);
    EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY);
    nodes_container_unlock(nodes);
}

TEST_F(nodes_container, serves_two_threads_under_its_lock)
{
    std::atomic<bool> done{false};
    std::thread ageing([&] {
        while (!done)
            nodes_container_update_lifetime(nodes);
    });
    std::thread listing([&] {
        while (!done) {
            const nodes_guard guard{container()};
            ASSERT_EQ(in_order().size(), nodes_container_get_size(nodes));
        }
    });
    std::mt19937_64 random(1);
    for (int i = 0; i < 5000; ++i) {
        const nodes_guard guard{container()};
        const mac_array mac = mac_of(random() % 50);
        NODE_t* node = create(mac);
        set_lifetime(node, 300);
        set_address(node, ip_of(static_cast<uint8_t>(random())));
        if (random() % 3 == 0)
            nodes_container_delete(nodes, mac.data());
    }
    done = true;
    ageing.join();
    listing.join();
}

TEST_F(nodes_container, is_full_at_its_limit)
{
    log_capture log;
    for (uint64_t i = 0; i < nodes_container_limit; ++i) {
        NODE_t* node = create(mac_of(i));
        ASSERT_NE(node, nullptr) << i;
        set_lifetime(node, 300);
    }
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_EQ(create(mac_of(nodes_container_limit)), nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre("nodes_container_find_or_create_by_mac: out of memory!"));
    EXPECT_EQ(nodes_container_get_size(nodes), nodes_container_limit);
    for (uint64_t i = 0; i < nodes_container_limit; i += 997)
        ASSERT_EQ(mac_of(*find(mac_of(i))), mac_of(i));
    nodes_container_delete(nodes, mac_of(5).data());
    EXPECT_NE(create(mac_of(nodes_container_limit)), nullptr);
}

TEST_F(nodes_container, a_refusal_is_logged_once_an_episode)
{
    constexpr const char* line = "nodes_container_find_or_create_by_mac: out of memory!";
    log_capture log;
    limit_to(1);
    set_lifetime(create(mac_of(1)), 1);
    for (uint64_t i = 2; i < 100; ++i)
        EXPECT_EQ(create(mac_of(i)), nullptr);
    EXPECT_EQ(create(mac_of(1)), find(mac_of(1))); // known: ends no episode
    EXPECT_EQ(create(mac_of(2)), nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre(line));
    age(1);
    set_lifetime(create(mac_of(2)), 1); // room that others had in between ends none, either
    for (uint64_t i = 3; i < 100; ++i)
        EXPECT_EQ(create(mac_of(i)), nullptr);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

// Logging waits for the logger, and whoever waits for the registry must not wait for that.
TEST(nodes_container_lock, what_fails_under_it_is_logged_behind_it)
{
    log_capture log;
    NODES_CONTAINER_t registry{1};
    const auto first = mac_of(1);
    const auto second = mac_of(2);
    {
        const nodes_guard guard{registry};
        NODE_t* node = registry.find_or_create_by_mac(first.data(), nullptr);
        registry.set_lifetime(*node, 300);
        EXPECT_EQ(registry.find_or_create_by_mac(second.data(), nullptr), nullptr);
        errno = ENOMEM;
        registry.set_win_client(*node, nullptr); // no identity: the library answers as without memory
        EXPECT_THAT(log.messages("main"), IsEmpty());
    }
    EXPECT_THAT(log.messages("main"),
                ElementsAre("nodes_container_find_or_create_by_mac: out of memory!",
                            "node_update_win_client_ID: zframe_dup: 12, Cannot allocate memory"));
    {
        const nodes_guard guard{registry};
        EXPECT_EQ(registry.find_or_create_by_mac(second.data(), nullptr), nullptr);
    }
    EXPECT_THAT(log.messages("main"), IsEmpty()) << "the same episode, and each line once";
}

} // namespace rtls
