#include "http/node_walk.h"

#include "support/processor_time.h"
#include "support/sanitizers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

namespace rtls {

using namespace std::chrono_literals;

static constexpr uint32_t bridges_number = 1000;

static std::array<uint8_t, 5> identity_of(uint32_t bridge)
{
    std::array<uint8_t, 5> identity{};
    std::memcpy(identity.data() + 1, &bridge, sizeof bridge);
    return identity;
}

static std::vector<win_client_info> make_bridges()
{
    std::vector<win_client_info> bridges(bridges_number);
    for (uint32_t i = 0; i < bridges_number; ++i)
        bridges[i].id = bridge_identity{identity_of(i)};
    return bridges;
}

// Each bridge has as many as the next.
static void add_nodes(NODES_CONTAINER_t& nodes, size_t number)
{
    for (uint64_t i = 0; i < number; ++i) {
        uint8_t mac[mac_size];
        const uint64_t bytes = i * 0x9E3779B97F4A7C15U;
        std::memcpy(mac, &bytes, sizeof mac);
        const auto identity = identity_of(static_cast<uint32_t>(i % bridges_number));
        const zframe_ptr bridge{zframe_new(identity.data(), identity.size())};
        const nodes_guard guard{nodes};
        NODE_t* node = nodes.find_or_create_by_mac(mac, nullptr);
        ASSERT_TRUE(node);
        nodes.set_win_client(*node, bridge.get());
    }
}

// The longest time on the processor between two slices, which the lock was held for, and a little more.
static std::chrono::nanoseconds longest_hold(NODES_CONTAINER_t& nodes, const bridge_index& bridges)
{
    std::chrono::nanoseconds longest{};
    const std::atomic<bool> is_stopping{false};
    std::chrono::nanoseconds last = processor_time();
    (void)walk_nodes(
        nodes, bridges,
        [&](std::span<const node_row> rows) {
            for (const node_row& row : rows)
                EXPECT_LT(row.bridge, bridges_number);
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
    const std::vector<win_client_info> bridges = make_bridges();
    const bridge_index index = index_bridges(bridges);
    EXPECT_LT(std::min({longest_hold(nodes, index), longest_hold(nodes, index), longest_hold(nodes, index)}),
              slowness * 1ms);
}

TEST(node_walk, ends_behind_the_slice_at_hand_when_the_door_stops)
{
    bool is_whole = true;
    EXPECT_EQ(slices_until(1, is_whole), 1U);
    EXPECT_FALSE(is_whole);
}

} // namespace rtls
