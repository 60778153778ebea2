#include "http/node_walk.h"

#include "support/processor_time.h"
#include "support/sanitizers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace rtls {

using namespace std::chrono_literals;

static void add_nodes(NODES_CONTAINER_t& nodes, size_t number)
{
    for (uint64_t i = 0; i < number; ++i) {
        uint8_t mac[mac_size];
        const uint64_t bytes = i * 0x9E3779B97F4A7C15U;
        std::memcpy(mac, &bytes, sizeof mac);
        const nodes_guard guard{nodes};
        EXPECT_TRUE(nodes.find_or_create_by_mac(mac, nullptr));
    }
}

// The longest time on the processor between two slices, which the lock was held for, and a little more.
static std::chrono::nanoseconds longest_hold(NODES_CONTAINER_t& nodes)
{
    std::chrono::nanoseconds longest{};
    const std::atomic<bool> is_stopping{false};
    std::chrono::nanoseconds last = processor_time();
    (void)walk_nodes(
        nodes, {},
        [&](std::span<const node_row>) {
            longest = std::max(longest, processor_time() - last);
            last = processor_time();
        },
        [] {}, is_stopping);
    return longest;
}

// Makes a registry of three slices, and walks through it; ends after `most` slices.
static size_t slices_until(size_t most, bool& is_whole)
{
    NODES_CONTAINER_t nodes;
    add_nodes(nodes, 3 * nodes_of_slice);
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

// A bridge's message waits for no more than that. The best of three walks: the first one finds cold memory.
TEST(node_walk, holds_the_lock_for_less_than_a_millisecond_in_a_large_registry)
{
    NODES_CONTAINER_t nodes;
    add_nodes(nodes, 100'000);
    EXPECT_LT(std::min({longest_hold(nodes), longest_hold(nodes), longest_hold(nodes)}), slowness * 1ms);
}

TEST(node_walk, ends_behind_the_slice_at_hand_when_the_door_stops)
{
    bool is_whole = true;
    EXPECT_EQ(slices_until(1, is_whole), 1U);
    EXPECT_FALSE(is_whole);
}

} // namespace rtls
