// What an operator's listing costs: the copying, for which the registry is locked and the WIN server may
// have to wait, and the rest, for which it is not.
#include "base/peer.h"
#include "registry/nodes_container.h"
#include "server/win_server.h"
#include "terminal/listing.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace rtls {

using std::chrono::duration;
using std::chrono::steady_clock;

static constexpr uint32_t bridges_number = 100;

// The identity of a bridge as the stream socket makes them: a zero and four bytes.
static zframe_ptr bridge_id(uint32_t number)
{
    uint8_t id[5] = {};
    std::memcpy(id + 1, &number, sizeof number);
    return zframe_ptr{zframe_new(id, sizeof id)};
}

static std::vector<win_client_info> make_bridges()
{
    std::vector<win_client_info> bridges(bridges_number);
    for (uint32_t i = 0; i < bridges_number; ++i)
        bridges[i].id = bridge_identity{frame_bytes(bridge_id(i).get())};
    return bridges;
}

// Nodes of all bridges in turn, or all of the first one.
static nodes_container_ptr make_nodes(uint32_t count, uint32_t used_bridges)
{
    nodes_container_ptr nodes{static_cast<NODES_CONTAINER_t*>(nodes_container_new())};
    const nodes_guard guard{*nodes};
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t shuffled = i * 2654435761U; // MACs in no order
        uint8_t mac[mac_size] = {0x00, 0x1A, 0x4C, 0x03};
        std::memcpy(mac + 4, &shuffled, sizeof shuffled);
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes.get(), mac, nullptr, 0);
        const zframe_ptr id = bridge_id(i % used_bridges);
        node_update_win_client_ID(node, id.get());
        node->lifetime = 300;
        std::memcpy(node->ip_addr + mac_size, mac, mac_size);
    }
    return nodes;
}

// Arguments: nodes, bridges that they are spread over.
static void snapshot(benchmark::State& state)
{
    const auto bridges = make_bridges();
    const auto index = index_bridges(bridges);
    const nodes_container_ptr nodes =
        make_nodes(static_cast<uint32_t>(state.range(0)), static_cast<uint32_t>(state.range(1)));
    std::vector<node_row> rows(static_cast<size_t>(state.range(0)));
    duration<double, std::milli> longest{0};
    duration<double, std::milli> shortest{1e9}; // on a busy machine the longest tells of its other work
    for ([[maybe_unused]] auto _ : state) {
        auto& registry = *nodes;
        const nodes_guard guard{registry};
        const auto start = steady_clock::now();
        copy_nodes_locked(registry, index, rows);
        const duration<double, std::milli> held = steady_clock::now() - start;
        longest = std::max(longest, held);
        shortest = std::min(shortest, held);
    }
    state.counters["longest_lock_ms"] = longest.count();
    state.counters["shortest_lock_ms"] = shortest.count();
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(snapshot)->Args({10'000, 100})->Args({100'000, 100})->Unit(benchmark::kMillisecond);

// The whole listing but for the sending: snapshot, duplicates, groups and lines.
static void listing(benchmark::State& state, bool full)
{
    const auto bridges = make_bridges();
    const nodes_container_ptr nodes =
        make_nodes(static_cast<uint32_t>(state.range(0)), static_cast<uint32_t>(state.range(1)));
    for ([[maybe_unused]] auto _ : state) {
        auto rows = copy_nodes(*nodes, index_bridges(bridges));
        mark_duplicate_addresses(rows);
        const node_groups groups = group_nodes(rows, bridges.size());
        for (const auto& group : groups.by_bridge)
            for (const node_row* row : group)
                benchmark::DoNotOptimize(node_line(*row, full, nullptr));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(listing, pn, false)
    ->Args({10'000, 100})
    ->Args({10'000, 1})
    ->Args({100'000, 100})
    ->Args({100'000, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(listing, pnf, true)
    ->Args({10'000, 100})
    ->Args({100'000, 100})
    ->Unit(benchmark::kMillisecond);

} // namespace rtls
