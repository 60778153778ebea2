#include "registry/nodes_container.h"

#include "support/log_capture.h"

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
#include <vector>

namespace rtls {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

using mac_t = std::array<uint8_t, mac_size>;
using ip_t = std::array<uint8_t, ip_addr_size>;

namespace {

constexpr uint16_t any_type = 0x0104;

mac_t mac_of(uint64_t number)
{
    mac_t mac;
    for (size_t i = 0; i < mac_size; ++i)
        mac[i] = static_cast<uint8_t>(number >> (56 - 8 * i));
    return mac;
}

mac_t mac_of(const NODE_t& node)
{
    mac_t mac;
    memcpy(mac.data(), node.mac_addr, mac_size);
    return mac;
}

// An address whose interface identifier stands for no node unless a test makes it so.
ip_t ip_of(uint8_t last)
{
    return {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0xE6, 1, 2, 3, 4, 5, 6, last};
}

class nodes_container : public testing::Test {
protected:
    ~nodes_container() override { nodes_container_destroy(&nodes); }

    NODE_t* create(const mac_t& mac)
    {
        return nodes_container_find_or_create_by_mac(nodes, mac.data(), nullptr, any_type);
    }
    NODE_t* find(const mac_t& mac) { return nodes_container_find_by_mac(nodes, mac.data()); }
    NODE_t* find_ip(const ip_t& ip) { return nodes_container_find_by_ip(nodes, ip.data()); }
    void set_address(NODE_t* node, const ip_t& ip, bool forwarded = false)
    {
        nodes_container_set_address(nodes, node, ip.data(), forwarded);
    }
    std::vector<mac_t> in_order()
    {
        std::vector<mac_t> macs;
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            macs.push_back(mac_of(*node));
        return macs;
    }

    void* nodes = nodes_container_new();
};

} // namespace

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
    nodes_container_destroy(nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre("nodes_container_destroy: null pointer!"));
}

TEST_F(nodes_container, a_new_node_is_all_zeros_but_its_mac)
{
    const NODE_t* node = create(mac_of(0x0102030405060708));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(mac_of(*node), mac_of(0x0102030405060708));
    EXPECT_EQ(node->win_client_id, nullptr);
    EXPECT_EQ(node->last_data, nullptr);
    EXPECT_THAT(node->ip_addr, Each(0));
    EXPECT_THAT(node->parent_addr, Each(0));
    for (const timeval& time : {node->last_activity, node->last_data_time}) {
        EXPECT_EQ(time.tv_sec, 0);
        EXPECT_EQ(time.tv_usec, 0);
    }
    const std::vector<uint64_t> unsigned_fields = {
        node->lifetime,       node->sw_version,      node->type,           node->ranging_freq,
        node->reporting_freq, node->sublocation_id,  node->state,          node->forwarded_ip,
        node->direct_mask,    node->sequence_number, node->last_data_size, node->max_data_size};
    EXPECT_THAT(unsigned_fields, Each(0U));
    EXPECT_THAT((std::array{node->pos_X, node->pos_Y, node->pos_Z}), Each(0));
}

TEST_F(nodes_container, nodes_are_found_by_their_whole_mac)
{
    const uint64_t numbers[] = {0x0000000000000000, 0x0000000000000001, 0x0100000000000000,
                                0x0102030405060708, 0x0807060504030201, 0xFFFFFFFFFFFFFFFF,
                                0xE400000000000100, 0xE400000000010000};
    std::map<mac_t, NODE_t*> created;
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
                                                              c.number < 0 ? nullptr : &number, any_type);
        if (!node)
            node = found;
        EXPECT_EQ(found, c.passes ? node : nullptr);
        EXPECT_EQ(node->sequence_number, c.stored);
    }
}

TEST_F(nodes_container, a_new_nodes_second_message_with_number_0_is_a_duplicate)
{
    const uint8_t zero = 0;
    EXPECT_NE(nodes_container_find_or_create_by_mac(nodes, mac_of(9).data(), &zero, any_type), nullptr);
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

TEST_F(nodes_container, ageing_stops_at_0_and_removes_nothing)
{
    const struct {
        uint16_t before;
        uint16_t after;
    } cases[] = {{0, 0}, {1, 0}, {2, 1}, {300, 299}, {0xFFFF, 0xFFFE}};
    for (const auto& c : cases)
        create(mac_of(c.before))->lifetime = c.before;
    nodes_container_update_lifetime(nodes);
    for (const auto& c : cases)
        EXPECT_EQ(find(mac_of(c.before))->lifetime, c.after);
    for (int i = 0; i < 5; ++i)
        nodes_container_update_lifetime(nodes);
    EXPECT_EQ(find(mac_of(1))->lifetime, 0);
    EXPECT_EQ(find(mac_of(300))->lifetime, 294);
    EXPECT_EQ(nodes_container_get_size(nodes), std::size(cases));
}

TEST_F(nodes_container, ageing_does_not_move_the_cursor)
{
    for (uint64_t i = 0; i < 20; ++i)
        create(mac_of(i));
    const auto order = in_order();
    std::vector<mac_t> seen;
    for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes)) {
        seen.push_back(mac_of(*node));
        nodes_container_update_lifetime(nodes);
    }
    EXPECT_EQ(seen, order);
}

TEST_F(nodes_container, the_short_mac_finds_the_first_node_in_table_order)
{
    std::mt19937_64 random(3);
    for (int i = 0; i < 400; ++i)
        create(mac_of(random() & ~uint64_t{0xE0E0}));
    const auto order = in_order();
    for (unsigned hi = 0; hi < 33; ++hi)
        for (unsigned lo = 0; lo < 33; ++lo) {
            const auto first = std::find_if(order.begin(), order.end(),
                                            [&](const mac_t& mac) { return mac[6] == hi && mac[7] == lo; });
            const NODE_t* found =
                nodes_container_find_by_short_mac(nodes, static_cast<uint8_t>(hi), static_cast<uint8_t>(lo));
            ASSERT_EQ(found != nullptr, first != order.end()) << hi << " " << lo;
            if (found) {
                ASSERT_EQ(mac_of(*found), *first) << hi << " " << lo;
            }
        }
}

TEST_F(nodes_container, an_address_finds_its_node)
{
    NODE_t* one = create(mac_of(1));
    NODE_t* two = create(mac_of(2));
    set_address(one, ip_of(1));
    set_address(two, ip_of(2));
    EXPECT_EQ(find_ip(ip_of(1)), one);
    EXPECT_EQ(find_ip(ip_of(2)), two);
    EXPECT_EQ(find_ip(ip_of(3)), nullptr);
    set_address(one, ip_of(3));
    EXPECT_EQ(find_ip(ip_of(1)), nullptr);
    EXPECT_EQ(find_ip(ip_of(3)), one);
    EXPECT_EQ(memcmp(one->ip_addr, ip_of(3).data(), ip_addr_size), 0);
    nodes_container_delete(nodes, mac_of(1).data());
    EXPECT_EQ(find_ip(ip_of(3)), nullptr);
}

TEST_F(nodes_container, the_interface_identifier_stands_for_a_mac)
{
    // The first byte of the identifier, whatever it is, gives way to E4.
    const ip_t ip{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0xE6, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    NODE_t* node = create(mac_of(0xE411223344556677));
    EXPECT_EQ(find_ip(ip), node);
    create(mac_of(0xE611223344556677));
    EXPECT_EQ(find_ip(ip), node);
    NODE_t* owner = create(mac_of(1));
    set_address(owner, ip);
    EXPECT_EQ(find_ip(ip), owner); // the address itself goes first
    set_address(owner, ip, true);
    EXPECT_EQ(find_ip(ip), node);
}

TEST_F(nodes_container, a_forwarded_address_is_found_through_the_interface_identifier_alone)
{
    const ip_t ip{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0xE6, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    NODE_t* node = create(mac_of(0xE411223344556677));
    set_address(node, ip, true);
    EXPECT_TRUE(node->forwarded_ip);
    EXPECT_EQ(find_ip(ip), node);
    set_address(node, ip_of(1), true);
    EXPECT_EQ(find_ip(ip_of(1)), nullptr);
    EXPECT_EQ(find_ip(ip), node);
    set_address(node, ip_of(1), false);
    EXPECT_FALSE(node->forwarded_ip);
    EXPECT_EQ(find_ip(ip_of(1)), node);
}

TEST_F(nodes_container, of_several_nodes_with_an_address_the_first_in_table_order_is_found)
{
    for (uint64_t i = 0; i < 40; ++i)
        set_address(create(mac_of(i * 0x9E3779B9)), ip_of(7));
    for (auto order = in_order(); !order.empty(); order = in_order()) {
        EXPECT_EQ(mac_of(*find_ip(ip_of(7))), order.front());
        nodes_container_delete(nodes, order.front().data());
    }
    EXPECT_EQ(find_ip(ip_of(7)), nullptr);
}

TEST_F(nodes_container, the_address_of_all_zeros_finds_a_node_that_has_not_told_its_own)
{
    NODE_t* silent = create(mac_of(1));
    NODE_t* known = create(mac_of(2));
    set_address(known, ip_of(1));
    EXPECT_EQ(find_ip({}), silent);
    set_address(silent, {}, true);
    EXPECT_EQ(find_ip({}), nullptr);
    set_address(known, {});
    EXPECT_EQ(find_ip({}), known);
    EXPECT_EQ(find_ip(ip_of(1)), nullptr);
}

TEST_F(nodes_container, an_address_may_be_the_nodes_own)
{
    NODE_t* node = create(mac_of(1));
    set_address(node, ip_of(1));
    nodes_container_set_address(nodes, node, node->ip_addr, true);
    EXPECT_TRUE(node->forwarded_ip);
    EXPECT_EQ(memcmp(node->ip_addr, ip_of(1).data(), ip_addr_size), 0);
}

// Every answer is the one that walking all nodes in table order would give.
TEST_F(nodes_container, addresses_agree_with_a_walk_whatever_happens)
{
    const auto walked = [this](const ip_t& ip) -> NODE_t* {
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            if (!node->forwarded_ip && memcmp(node->ip_addr, ip.data(), ip_addr_size) == 0)
                return node;
        mac_t mac;
        memcpy(mac.data(), &ip[8], mac_size);
        mac[0] = 0xE4;
        return nodes_container_find_by_mac(nodes, mac.data());
    };
    std::mt19937_64 random(42);
    const auto some_mac = [&] { return mac_of(0xE401020304050600 + random() % 24); };
    const auto some_ip = [&] {
        return random() % 8 == 0 ? ip_t{} : ip_of(static_cast<uint8_t>(random() % 16));
    };
    for (int i = 0; i < 40'000; ++i) {
        const mac_t mac = some_mac();
        switch (random() % 8) {
        case 0:
            nodes_container_delete(nodes, mac.data());
            break;
        case 1:
        case 2:
            create(mac);
            break;
        case 3:
        case 4:
            if (NODE_t* node = find(mac))
                set_address(node, some_ip(), random() % 4 == 0);
            break;
        default: {
            const ip_t ip = some_ip();
            ASSERT_EQ(find_ip(ip), walked(ip)) << "operation " << i;
        }
        }
    }
}

TEST_F(nodes_container, the_handle_is_the_mutex)
{
    auto* mutex = static_cast<pthread_mutex_t*>(nodes);
    {
        const nodes_guard guard{nodes};
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
            const nodes_guard guard{nodes};
            ASSERT_EQ(in_order().size(), nodes_container_get_size(nodes));
        }
    });
    std::mt19937_64 random(1);
    for (int i = 0; i < 5000; ++i) {
        const nodes_guard guard{nodes};
        const mac_t mac = mac_of(random() % 50);
        NODE_t* node = create(mac);
        node->lifetime = 300;
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
    for (uint64_t i = 0; i < nodes_container_limit; ++i)
        ASSERT_NE(create(mac_of(i)), nullptr) << i;
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_EQ(create(mac_of(nodes_container_limit)), nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre("nodes_container_find_or_create_by_mac: out of memory!"));
    EXPECT_EQ(nodes_container_get_size(nodes), nodes_container_limit);
    for (uint64_t i = 0; i < nodes_container_limit; i += 997)
        ASSERT_EQ(mac_of(*find(mac_of(i))), mac_of(i));
    nodes_container_delete(nodes, mac_of(5).data());
    EXPECT_NE(create(mac_of(nodes_container_limit)), nullptr);
}

} // namespace rtls
