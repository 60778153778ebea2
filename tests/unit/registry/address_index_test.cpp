// The index itself, and the container's look-ups that it answers.
#include "registry/address_index.h"

#include "support/failing_new.h"
#include "support/registry_fixture.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <random>

namespace rtls {

using address_index_test = registry_fixture;

TEST(address_index, has_the_nodes_by_their_own_address_alone)
{
    node_table table;
    address_index index{table};
    const ip_bytes own = ip_of(1);
    auto made = std::make_unique<stored_node>();
    std::memcpy(made->ip_addr, own.data(), ip_addr_size);
    stored_node* node = table.insert(std::move(made));
    EXPECT_EQ(index.first_with(own.data()), std::optional<stored_node*>{nullptr});
    index.add(node);
    EXPECT_EQ(index.first_with(own.data()), std::optional{node});
    EXPECT_EQ(index.first_with(ip_of(2).data()), std::optional<stored_node*>{nullptr});
    index.remove(node);
    EXPECT_EQ(index.first_with(own.data()), std::optional<stored_node*>{nullptr});
    node->forwarded_ip = true;
    index.add(node);
    EXPECT_EQ(index.first_with(own.data()), std::optional<stored_node*>{nullptr}) << "somebody else's";
}

TEST_F(address_index_test, an_address_finds_its_node)
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
    EXPECT_EQ(std::memcmp(one->ip_addr, ip_of(3).data(), ip_addr_size), 0);
    nodes_container_delete(nodes, mac_of(1).data());
    EXPECT_EQ(find_ip(ip_of(3)), nullptr);
}

TEST_F(address_index_test, the_interface_identifier_stands_for_a_mac)
{
    // The first byte of the identifier, whatever it is, gives way to E4.
    const ip_bytes ip{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0xE6, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
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

TEST_F(address_index_test, a_forwarded_address_is_found_through_the_interface_identifier_alone)
{
    const ip_bytes ip{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0xE6, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
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

TEST_F(address_index_test, the_address_of_all_zeros_finds_a_node_that_has_not_told_its_own)
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

TEST_F(address_index_test, an_address_may_be_the_nodes_own)
{
    NODE_t* node = create(mac_of(1));
    set_address(node, ip_of(1));
    nodes_container_set_address(nodes, node, node->ip_addr, true);
    EXPECT_TRUE(node->forwarded_ip);
    EXPECT_EQ(std::memcmp(node->ip_addr, ip_of(1).data(), ip_addr_size), 0);
}

// Every answer is the one that walking all nodes in table order would give.
TEST_F(address_index_test, addresses_agree_with_a_walk_whatever_happens)
{
    const auto walked = [this](const ip_bytes& ip) -> NODE_t* {
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            if (!node->forwarded_ip && std::memcmp(node->ip_addr, ip.data(), ip_addr_size) == 0)
                return node;
        mac_array mac;
        std::memcpy(mac.data(), &ip[8], mac_size);
        mac[0] = 0xE4;
        return nodes_container_find_by_mac(nodes, mac.data());
    };
    std::mt19937_64 random(42);
    const auto some_mac = [&] { return mac_of(0xE401020304050600 + random() % 24); };
    const auto some_ip = [&] {
        return random() % 8 == 0 ? ip_bytes{} : ip_of(static_cast<uint8_t>(random() % 16));
    };
    for (int i = 0; i < 40'000; ++i) {
        const mac_array mac = some_mac();
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
            const ip_bytes ip = some_ip();
            ASSERT_EQ(find_ip(ip), walked(ip)) << "operation " << i;
        }
        }
    }
}

TEST_F(address_index_test, an_address_for_which_memory_is_short_is_found_all_the_same)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    std::array<uint8_t, ip_addr_size> ip{0xFE, 0x80};
    const auto find_ip = [&](uint8_t last) {
        ip.back() = last;
        return nodes_container_find_by_ip(nodes, ip.data());
    };
    const auto set_ip = [&](NODE_t* node, uint8_t last) {
        ip.back() = last;
        nodes_container_set_address(nodes, node, ip.data(), false);
    };
    NODE_t* one = create(mac_of(1));
    NODE_t* two = create(mac_of(2));
    set_ip(one, 1);
    fail_next_allocations(1);
    set_ip(two, 2);
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_EQ(find_ip(1), one);
    EXPECT_EQ(find_ip(2), two);
    set_ip(two, 3);
    EXPECT_EQ(find_ip(2), nullptr);
    EXPECT_EQ(find_ip(3), two);
    nodes_container_delete(nodes, mac_of(2).data());
    EXPECT_EQ(find_ip(3), nullptr);
    EXPECT_EQ(find_ip(1), one);
}

} // namespace rtls
