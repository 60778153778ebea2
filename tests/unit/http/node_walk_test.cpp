#include "http/node_walk.h"

#include <gtest/gtest.h>

#include <cstring>

namespace rtls {

// Makes a registry of three slices, and walks through it; ends after `most` slices.
static size_t slices_until(size_t most, bool& is_whole)
{
    NODES_CONTAINER_t nodes;
    for (uint64_t i = 0; i < 3 * nodes_of_slice; ++i) {
        uint8_t mac[mac_size];
        const uint64_t number = i * 0x9E3779B97F4A7C15U;
        std::memcpy(mac, &number, sizeof mac);
        const nodes_guard guard{nodes};
        EXPECT_TRUE(nodes.find_or_create_by_mac(mac, nullptr));
    }
    std::atomic<bool> is_stopping{false};
    size_t slices = 0;
    const auto take = [&](std::span<const node_row> rows) {
        EXPECT_LE(rows.size(), nodes_of_slice);
        slices += rows.empty() ? 0 : 1;
        is_stopping = slices == most;
    };
    is_whole = walk_nodes(
        nodes, {}, take, [] { ADD_FAILURE() << "nobody changes the table"; }, is_stopping);
    return slices;
}

TEST(node_walk, comes_by_all_nodes)
{
    bool is_whole = false;
    EXPECT_EQ(slices_until(100, is_whole), 3U);
    EXPECT_TRUE(is_whole);
}

TEST(node_walk, ends_behind_the_slice_at_hand_when_the_door_stops)
{
    bool is_whole = true;
    EXPECT_EQ(slices_until(1, is_whole), 1U);
    EXPECT_FALSE(is_whole);
}

} // namespace rtls
