// The nodes container's look-ups, at the sizes of a small site, a large one, and beyond any we know.
#include "registry/nodes_container.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace rtls {

namespace {

using mac_t = std::array<uint8_t, mac_size>;
using ip_t = std::array<uint8_t, ip_addr_size>;

// Nodes with the MACs of one maker's range, each with its own address. Keys are asked for in random
// order, as reports come in.
class registry {
public:
    explicit registry(size_t count) : m_keys(count)
    {
        for (size_t i = 0; i < count; ++i) {
            m_keys[i].mac = {0xE4, 0x11, 0x22, 0x33, 0x44};
            for (size_t k = 0; k < 3; ++k)
                m_keys[i].mac[7 - k] = static_cast<uint8_t>(i >> 8 * k);
            m_keys[i].ip = {0x20, 0x01, 0x0D, 0xB8};
            memcpy(&m_keys[i].ip[8], m_keys[i].mac.data(), mac_size);
            NODE_t* node = nodes_container_find_or_create_by_mac(m_nodes, m_keys[i].mac.data(), nullptr, 0);
            nodes_container_set_address(m_nodes, node, m_keys[i].ip.data(), false);
        }
        std::shuffle(m_keys.begin(), m_keys.end(), std::mt19937(1));
    }
    ~registry() { nodes_container_destroy(&m_nodes); }
    registry(const registry&) = delete;
    registry& operator=(const registry&) = delete;

    struct address_key {
        mac_t mac;
        ip_t ip;
    };
    const address_key& next_key() { return m_keys[m_next++ % m_keys.size()]; }
    void* nodes() const { return m_nodes; }

private:
    void* m_nodes = nodes_container_new();
    std::vector<address_key> m_keys;
    size_t m_next = 0;
};

void find_by_mac(benchmark::State& state)
{
    registry r(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning())
        benchmark::DoNotOptimize(nodes_container_find_by_mac(r.nodes(), r.next_key().mac.data()));
}

void find_by_short_mac(benchmark::State& state)
{
    registry r(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning()) {
        const mac_t& mac = r.next_key().mac;
        benchmark::DoNotOptimize(nodes_container_find_by_short_mac(r.nodes(), mac[6], mac[7]));
    }
}

void find_by_ip(benchmark::State& state)
{
    registry r(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning())
        benchmark::DoNotOptimize(nodes_container_find_by_ip(r.nodes(), r.next_key().ip.data()));
}

// An address that no node has told: decided by the interface identifier at once.
void find_by_unknown_ip(benchmark::State& state)
{
    registry r(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning()) {
        ip_t ip = r.next_key().ip;
        ip[7] = 1;
        benchmark::DoNotOptimize(nodes_container_find_by_ip(r.nodes(), ip.data()));
    }
}

// What a report does: the look-up, its sequence number, and the address, which has not changed.
void process_report(benchmark::State& state)
{
    registry r(static_cast<size_t>(state.range(0)));
    uint8_t sequence_number = 0;
    while (state.KeepRunning()) {
        ++sequence_number;
        const auto& key = r.next_key();
        const nodes_guard guard{r.nodes()};
        NODE_t* node =
            nodes_container_find_or_create_by_mac(r.nodes(), key.mac.data(), &sequence_number, 0x0104);
        if (node)
            nodes_container_set_address(r.nodes(), node, key.ip.data(), false);
    }
}

void age_all(benchmark::State& state)
{
    const registry r(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning())
        nodes_container_update_lifetime(r.nodes());
}

void walk_all(benchmark::State& state)
{
    const registry r(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning())
        for (auto* node = nodes_container_get_first(r.nodes()); node;
             node = nodes_container_get_next(r.nodes()))
            benchmark::DoNotOptimize(node);
}

void at_three_sizes(benchmark::internal::Benchmark* b)
{
    b->Arg(10)->Arg(1'000)->Arg(100'000);
}

} // namespace

BENCHMARK(find_by_mac)->Apply(at_three_sizes);
BENCHMARK(find_by_short_mac)->Apply(at_three_sizes);
BENCHMARK(find_by_ip)->Apply(at_three_sizes);
BENCHMARK(find_by_unknown_ip)->Apply(at_three_sizes);
BENCHMARK(process_report)->Apply(at_three_sizes);
BENCHMARK(age_all)->Apply(at_three_sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(walk_all)->Apply(at_three_sizes)->Unit(benchmark::kMicrosecond);

} // namespace rtls
