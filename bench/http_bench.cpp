// What the HTTP pages cost: the longest hold of the registry's lock while its nodes are copied, and a scrape.
#include "http/metrics_text.h"
#include "http/node_query.h"
#include "http/node_walk.h"
#include "link/win_server_private.h"
#include "rtls-gateway.h"
#include "server/win_server.h"
#include "services.h"
#include "support/test_gateway.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace rtls {

static constexpr size_t bridges_number = 1000;
static constexpr size_t nodes_number = 100'000;

static std::string identity_of(size_t bridge)
{
    std::string identity(5, '\0');
    std::memcpy(identity.data() + 1, &bridge, 4);
    return identity;
}

static std::array<uint8_t, mac_size> mac_of(uint64_t number)
{
    std::array<uint8_t, mac_size> mac{};
    number *= 0x9E3779B97F4A7C15U;
    std::memcpy(mac.data(), &number, mac.size());
    return mac;
}

// 1,000 bridges with 100 nodes each.
static test_gateway& loaded_gateway()
{
    static test_gateway gateway;
    static const bool is_loaded = [] {
        for (size_t i = 0; i < bridges_number; ++i)
            gateway.add_bridge(identity_of(i), mac_of(i + nodes_number), "127.0.0.1", 1);
        for (size_t i = 0; i < nodes_number; ++i)
            gateway.add_node(mac_of(i), identity_of(i % bridges_number));
        return true;
    }();
    (void)is_loaded;
    return gateway;
}

// The time that this thread has had: on a busy machine the other one says how busy that is.
static double thread_us()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// One part of the walk, as node_walk does it.
static void hold_of_the_registry(benchmark::State& state)
{
    auto& nodes = *loaded_gateway().nodes();
    const auto bridges = win_server_copy_clients(loaded_gateway().win_server());
    const bridge_index index = index_bridges(bridges);
    std::vector<node_row> rows(nodes_of_slice);
    std::vector<double> holds;
    node_table::part_walk walk;
    walk.is_done = true;
    for (auto _ : state) {
        const nodes_guard guard{nodes};
        const double began = thread_us();
        if (walk.is_done)
            walk = nodes.begin_walk();
        size_t count = 0;
        (void)nodes.visit_part(walk, nodes_of_slice,
                               [&](const NODE_t& node) { copy_node(node, index, rows[count++]); });
        holds.push_back(thread_us() - began);
    }
    std::ranges::sort(holds);
    state.counters["p99_us"] = holds[holds.size() * 99 / 100];
    state.counters["longest_us"] = holds.back();
}
BENCHMARK(hold_of_the_registry);

static void hold_of_the_bridges(benchmark::State& state)
{
    auto& server = loaded_gateway().win_server();
    for (auto _ : state)
        benchmark::DoNotOptimize(server.clients.copy());
}
BENCHMARK(hold_of_the_bridges);

static void scrape(benchmark::State& state)
{
    const auto& gateway = *rtls_gateway_get_services(loaded_gateway().handle());
    for (auto _ : state)
        benchmark::DoNotOptimize(metrics_page(gateway, {}));
}
BENCHMARK(scrape);

static void page_of_nodes(benchmark::State& state)
{
    auto& nodes = *loaded_gateway().nodes();
    const auto bridges = win_server_copy_clients(loaded_gateway().win_server());
    const std::atomic<bool> is_stopping{false};
    for (auto _ : state) {
        nodes_page page{{}, bridges};
        walk_nodes(
            nodes, index_bridges(bridges), [&](std::span<const node_row> rows) { page.take(rows); },
            [&] { page.begin_anew(); }, is_stopping);
        benchmark::DoNotOptimize(page.as_json());
    }
}
BENCHMARK(page_of_nodes)->Unit(benchmark::kMillisecond);

} // namespace rtls
