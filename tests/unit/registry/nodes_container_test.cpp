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
#include <utility>
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
    void set_lifetime(NODE_t* node, uint16_t lifetime)
    {
        nodes_container_set_lifetime(nodes, node, lifetime);
    }
    void age(int ticks)
    {
        for (int i = 0; i < ticks; ++i)
            nodes_container_update_lifetime(nodes);
    }
    // Starts anew with a container that takes no more nodes than this.
    void limit_to(size_t limit)
    {
        nodes_container_destroy(&nodes);
        nodes = new NODES_CONTAINER_t(limit);
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

// The same while the table grows: each growth gives the nodes with one address another order.
TEST_F(nodes_container, shared_addresses_agree_with_a_walk_while_the_table_grows)
{
    std::mt19937_64 random(7);
    const auto first_in_walk = [this](const ip_t& ip) -> NODE_t* {
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            if (!node->forwarded_ip && memcmp(node->ip_addr, ip.data(), ip_addr_size) == 0)
                return node;
        return nullptr; // no test node has the MAC that an interface identifier here stands for
    };
    const auto some_ip = [&] {
        return random() % 3 == 0 ? ip_t{} : ip_of(static_cast<uint8_t>(random() % 4));
    };
    std::vector<mac_t> known;
    for (int i = 0; i < 20'000; ++i) {
        if (known.empty() || random() % 3 != 0) {
            known.push_back(mac_of(0xE500000000000000 | random() >> 8));
            set_address(create(known.back()), some_ip(), random() % 8 == 0);
        }
        mac_t& mac = known[random() % known.size()];
        if (random() % 2 == 0)
            set_address(find(mac), some_ip(), random() % 8 == 0);
        else if (random() % 4 == 0) {
            nodes_container_delete(nodes, mac.data());
            std::swap(mac, known.back());
            known.pop_back();
        }
        if (i < 1'000 || i % 50 == 0)
            for (const ip_t& ip : {ip_t{}, ip_of(0), ip_of(1), ip_of(2), ip_of(3)}) {
                ASSERT_EQ(find_ip(ip), first_in_walk(ip)) << "operation " << i;
            }
    }
    EXPECT_GT(nodes_container_get_size(nodes), 5'000U);
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

TEST_F(nodes_container, at_the_limit_the_longest_expired_node_makes_room)
{
    log_capture log;
    limit_to(4);
    set_lifetime(create(mac_of(1)), 3);
    set_lifetime(create(mac_of(2)), 1);
    set_lifetime(create(mac_of(3)), 2);
    set_lifetime(create(mac_of(4)), 300);
    age(3);
    for (const uint64_t gone :
         {2U, 3U, 1U, 12U, 13U}) { // those after the first three are themselves newcomers
        EXPECT_NE(find(mac_of(gone)), nullptr) << gone;
        EXPECT_NE(create(mac_of(gone + 10)), nullptr);
        EXPECT_EQ(find(mac_of(gone)), nullptr) << gone;
        EXPECT_EQ(nodes_container_get_size(nodes), 4U);
    }
    EXPECT_NE(find(mac_of(4)), nullptr);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST_F(nodes_container, a_node_that_is_renewed_keeps_its_room)
{
    limit_to(2);
    set_lifetime(create(mac_of(1)), 1);
    set_lifetime(create(mac_of(2)), 2);
    age(2);
    set_lifetime(find(mac_of(1)), 1);
    create(mac_of(3));
    EXPECT_NE(find(mac_of(1)), nullptr);
    EXPECT_EQ(find(mac_of(2)), nullptr);
}

TEST_F(nodes_container, no_node_that_lives_makes_room)
{
    limit_to(3);
    set_lifetime(create(mac_of(1)), 0xFFFF); // longer than any node can name
    set_lifetime(create(mac_of(2)), 5000);
    create(mac_of(3))->lifetime = 4998; // behind the container's back
    age(4997);
    EXPECT_EQ(create(mac_of(4)), nullptr);
    age(1);
    EXPECT_NE(create(mac_of(4)), nullptr);
    EXPECT_EQ(find(mac_of(3)), nullptr);
    EXPECT_EQ(find(mac_of(2))->lifetime, 2);
    EXPECT_EQ(find(mac_of(1))->lifetime, 0xFFFF - 4998);
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
    set_lifetime(create(mac_of(2)), 1);
    for (uint64_t i = 3; i < 100; ++i)
        EXPECT_EQ(create(mac_of(i)), nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre(line));
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

// Against lifetimes counted down one by one, and a list of those that expired in their order.
TEST_F(nodes_container, lifetimes_and_room_agree_with_a_count_whatever_happens)
{
    constexpr size_t limit = 20;
    limit_to(limit);
    std::map<mac_t, uint16_t> lifetimes;
    std::vector<mac_t> waiting; // in the order of when their lifetimes were set
    std::vector<mac_t> expired;
    std::mt19937_64 random(11);
    const auto forget = [&](const mac_t& mac) {
        std::erase(waiting, mac);
        std::erase(expired, mac);
    };
    const auto set = [&](const mac_t& mac, uint16_t lifetime) {
        if (lifetimes[mac] == 0 && lifetime == 0)
            return;
        forget(mac);
        lifetimes[mac] = lifetime;
        (lifetime == 0 ? expired : waiting).push_back(mac);
    };
    for (int i = 0; i < 30'000; ++i) {
        const mac_t mac = mac_of(random() % 40);
        switch (random() % 8) {
        case 0:
            age(1);
            for (const mac_t& one : std::vector<mac_t>(waiting))
                if (--lifetimes[one] == 0) {
                    std::erase(waiting, one);
                    expired.push_back(one);
                }
            break;
        case 1:
            nodes_container_delete(nodes, mac.data());
            forget(mac);
            lifetimes.erase(mac);
            break;
        case 2:
        case 3: {
            const bool known = lifetimes.count(mac) != 0;
            const bool full = lifetimes.size() == limit;
            ASSERT_EQ(create(mac) != nullptr, known || !full || !expired.empty()) << i;
            if (known || (full && expired.empty()))
                break;
            if (full) {
                lifetimes.erase(expired.front());
                expired.erase(expired.begin());
            }
            lifetimes[mac] = 0;
            expired.push_back(mac);
            break;
        }
        default:
            if (NODE_t* node = find(mac)) {
                const auto lifetime = static_cast<uint16_t>(random() % 4 == 0 ? 0 : random() % 30);
                set_lifetime(node, lifetime);
                set(mac, lifetime);
            }
        }
        std::map<mac_t, uint16_t> listed;
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            listed[mac_of(*node)] = node->lifetime;
        ASSERT_EQ(listed, lifetimes) << i;
    }
}

} // namespace rtls
