// The tree itself, and the container's look-ups of an address that several nodes share.
#include "registry/order_tree.h"

#include "support/registry_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <utility>
#include <vector>

namespace rtls {

using order_tree_test = registry_fixture;

TEST(order_tree, has_the_first_node_in_table_order_whatever_goes_in_and_out)
{
    node_table table;
    order_tree tree;
    EXPECT_TRUE(tree.empty());
    std::vector<stored_node*> nodes;
    for (uint64_t i = 0; i < 200; ++i) {
        auto made = std::make_unique<stored_node>();
        std::memcpy(made->mac_addr, mac_of(i * 0x9E3779B9).data(), mac_size);
        nodes.push_back(table.insert(std::move(made)));
        tree.insert(table, nodes.back());
    }
    std::shuffle(nodes.begin(), nodes.end(), std::mt19937{5});
    for (; !nodes.empty(); nodes.pop_back()) {
        const stored_node* first = table.find_first([&](const stored_node& node) {
            return std::find(nodes.begin(), nodes.end(), &node) != nodes.end();
        });
        ASSERT_EQ(tree.first(table), first);
        tree.remove(table, nodes.back());
        tree.remove(table, nodes.back()); // it is there no more
    }
    EXPECT_TRUE(tree.empty());
}

TEST_F(order_tree_test, of_several_nodes_with_an_address_the_first_in_table_order_is_found)
{
    for (uint64_t i = 0; i < 40; ++i)
        set_address(create(mac_of(i * 0x9E3779B9)), ip_of(7));
    for (auto order = in_order(); !order.empty(); order = in_order()) {
        EXPECT_EQ(mac_of(*find_ip(ip_of(7))), order.front());
        nodes_container_delete(nodes, order.front().data());
    }
    EXPECT_EQ(find_ip(ip_of(7)), nullptr);
}

// The same while the table grows: each growth gives the nodes with one address another order.
TEST_F(order_tree_test, shared_addresses_agree_with_a_walk_while_the_table_grows)
{
    std::mt19937_64 random(7);
    const auto first_in_walk = [this](const ip_bytes& ip) -> NODE_t* {
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            if (!node->forwarded_ip && std::memcmp(node->ip_addr, ip.data(), ip_addr_size) == 0)
                return node;
        return nullptr; // no test node has the MAC that an interface identifier here stands for
    };
    const auto some_ip = [&] {
        return random() % 3 == 0 ? ip_bytes{} : ip_of(static_cast<uint8_t>(random() % 4));
    };
    std::vector<mac_array> known;
    for (int i = 0; i < 20'000; ++i) {
        if (known.empty() || random() % 3 != 0) {
            known.push_back(mac_of(0xE500000000000000 | random() >> 8));
            set_address(create(known.back()), some_ip(), random() % 8 == 0);
        }
        mac_array& mac = known[random() % known.size()];
        if (random() % 2 == 0)
            set_address(find(mac), some_ip(), random() % 8 == 0);
        else if (random() % 4 == 0) {
            nodes_container_delete(nodes, mac.data());
            std::swap(mac, known.back());
            known.pop_back();
        }
        if (i < 1'000 || i % 50 == 0)
            for (const ip_bytes& ip : {ip_bytes{}, ip_of(0), ip_of(1), ip_of(2), ip_of(3)}) {
                ASSERT_EQ(find_ip(ip), first_in_walk(ip)) << "operation " << i;
            }
    }
    EXPECT_GT(nodes_container_get_size(nodes), 5'000U);
}

} // namespace rtls
