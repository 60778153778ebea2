#include "terminal/short_mac.h"

#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

namespace rtls {

namespace {

mac_array add_node(NODES_CONTAINER_t& nodes, uint8_t first, uint16_t short_mac)
{
    const mac_array mac{
        first, 0, 0, 0, 0, 0, static_cast<uint8_t>(short_mac >> 8), static_cast<uint8_t>(short_mac)};
    const nodes_guard guard{nodes};
    EXPECT_NE(nodes.find_or_create_by_mac(mac.data(), nullptr), nullptr);
    return mac;
}

} // namespace

TEST(short_mac, finds_a_node_by_its_last_two_bytes)
{
    NODES_CONTAINER_t nodes;
    const mac_array one = add_node(nodes, 1, 0x1A2B);
    const mac_array zero = add_node(nodes, 2, 0x0000);
    EXPECT_EQ(find_mac_by_short(&nodes, 0x1A2B), one);
    EXPECT_EQ(find_mac_by_short(&nodes, 0x0000), zero);
    EXPECT_EQ(find_mac_by_short(&nodes, 0x2B1A), std::nullopt);
}

TEST(short_mac, of_several_nodes_the_first_in_the_registrys_order_is_meant)
{
    NODES_CONTAINER_t nodes;
    for (uint8_t i = 0; i < 20; ++i)
        add_node(nodes, i, 0xBEEF);
    std::vector<mac_array> order;
    {
        const nodes_guard guard{nodes};
        for (const NODE_t* node = nodes.first(); node; node = nodes.next())
            std::memcpy(order.emplace_back().data(), node->mac_addr, mac_size);
    }
    for (const mac_array& mac : order) {
        EXPECT_EQ(find_mac_by_short(&nodes, 0xBEEF), mac);
        EXPECT_TRUE(delete_node_by_short_mac(&nodes, 0xBEEF));
    }
    EXPECT_FALSE(delete_node_by_short_mac(&nodes, 0xBEEF));
}

// The container's own look holds the lock throughout, and knows the order.
TEST(short_mac, is_found_in_parts_as_in_one_look)
{
    NODES_CONTAINER_t nodes;
    for (uint16_t i = 0; i < 20'000; ++i)
        add_node(nodes, static_cast<uint8_t>(i), static_cast<uint16_t>(i % 9000));
    for (uint16_t short_mac = 0; short_mac < 9100; short_mac = static_cast<uint16_t>(short_mac + 7)) {
        std::optional<mac_array> then;
        {
            const nodes_guard guard{nodes};
            if (const NODE_t* node = nodes.find_by_short_mac(static_cast<uint8_t>(short_mac >> 8),
                                                             static_cast<uint8_t>(short_mac)))
                std::memcpy(then.emplace().data(), node->mac_addr, mac_size);
        }
        EXPECT_EQ(find_mac_by_short(&nodes, short_mac), then) << short_mac;
    }
}

TEST(short_mac, deletes_that_node_alone)
{
    NODES_CONTAINER_t nodes;
    add_node(nodes, 1, 0x1A2B);
    const mac_array other = add_node(nodes, 1, 0x1A2C);
    EXPECT_TRUE(delete_node_by_short_mac(&nodes, 0x1A2B));
    EXPECT_EQ(find_mac_by_short(&nodes, 0x1A2B), std::nullopt);
    EXPECT_EQ(find_mac_by_short(&nodes, 0x1A2C), other);
}

TEST(short_mac, without_a_registry_knows_no_node)
{
    log_capture log;
    EXPECT_EQ(find_mac_by_short(nullptr, 1), std::nullopt);
    EXPECT_FALSE(delete_node_by_short_mac(nullptr, 1));
    EXPECT_THAT(log.messages("main"), testing::SizeIs(2));
}

} // namespace rtls
