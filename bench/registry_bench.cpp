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

using ip_bytes = std::array<uint8_t, ip_addr_size>;

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
            std::memcpy(&m_keys[i].ip[8], m_keys[i].mac.data(), mac_size);
            NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), m_keys[i].mac.data(), nullptr, 0);
            nodes_container_set_address(nodes(), node, m_keys[i].ip.data(), false);
            nodes_container_set_lifetime(nodes(), node, 300);
        }
        std::shuffle(m_keys.begin(), m_keys.end(), std::mt19937(1));
    }
    ~registry() = default;
    registry(const registry&) = delete;
    registry& operator=(const registry&) = delete;

    struct address_key {
        mac_array mac;
        ip_bytes ip;
    };
    const address_key& next_key() { return m_keys[m_next++ % m_keys.size()]; }
    NODES_CONTAINER_t* nodes() const { return m_nodes.get(); }

private:
    nodes_container_ptr m_nodes{static_cast<NODES_CONTAINER_t*>(nodes_container_new())};
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
        const mac_array& mac = r.next_key().mac;
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
        ip_bytes ip = r.next_key().ip;
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
        const nodes_guard guard{*r.nodes()};
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

// A registry as an attacker would fill it: all nodes have the same address, be it of all zeros or not.
class flooded_registry {
public:
    flooded_registry(size_t count, const ip_bytes& ip) : m_ip(ip)
    {
        for (size_t i = 0; i < count; ++i)
            nodes_container_set_address(nodes(), create(i), m_ip.data(), false);
    }
    ~flooded_registry() = default;
    flooded_registry(const flooded_registry&) = delete;
    flooded_registry& operator=(const flooded_registry&) = delete;

    // MACs as if drawn at random.
    NODE_t* create(uint64_t number)
    {
        mac_array mac{0xE4, 0x11, 0x22};
        for (size_t k = 0; k < 5; ++k)
            mac[7 - k] = static_cast<uint8_t>(number * 0x9E3779B97F4A7C15U >> 8 * k);
        return nodes_container_find_or_create_by_mac(nodes(), mac.data(), nullptr, 0);
    }
    NODE_t* find() { return nodes_container_find_by_ip(nodes(), m_ip.data()); }
    void move(NODE_t* node, const ip_bytes& ip)
    {
        nodes_container_set_address(nodes(), node, ip.data(), false);
    }
    const ip_bytes& ip() const { return m_ip; }
    NODES_CONTAINER_t* nodes() const { return m_nodes.get(); }

private:
    nodes_container_ptr m_nodes{static_cast<NODES_CONTAINER_t*>(nodes_container_new())};
    ip_bytes m_ip;
};

constexpr ip_bytes shared_ip{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0xE6, 1, 2, 3, 4, 5, 6, 7};
constexpr ip_bytes other_ip{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0xE6, 1, 2, 3, 4, 5, 6, 8};

void find_in_flooded(benchmark::State& state, const ip_bytes& ip)
{
    flooded_registry r(static_cast<size_t>(state.range(0)), ip);
    while (state.KeepRunning())
        benchmark::DoNotOptimize(r.find());
}

// An address that nobody has, while all nodes share another one.
void find_forged_ip(benchmark::State& state)
{
    const flooded_registry r(static_cast<size_t>(state.range(0)), shared_ip);
    while (state.KeepRunning())
        benchmark::DoNotOptimize(nodes_container_find_by_ip(r.nodes(), other_ip.data()));
}

// The node found goes elsewhere and comes back: every look-up finds another one than the one before.
void find_shared_ip_of_a_mover(benchmark::State& state)
{
    flooded_registry r(static_cast<size_t>(state.range(0)), shared_ip);
    while (state.KeepRunning()) {
        NODE_t* const mover = r.find();
        r.move(mover, other_ip);
        benchmark::DoNotOptimize(r.find());
        r.move(mover, shared_ip);
    }
}

// A new node with the shared address before every look-up.
void find_shared_ip_of_newcomers(benchmark::State& state)
{
    flooded_registry r(static_cast<size_t>(state.range(0)), shared_ip);
    auto number = static_cast<uint64_t>(state.range(0));
    while (state.KeepRunning()) {
        r.move(r.create(++number), shared_ip);
        benchmark::DoNotOptimize(r.find());
    }
}

// The floods are made once: they take seconds.
void at_sizes_of_floods(benchmark::internal::Benchmark* b)
{
    b->Arg(1'000)->Arg(100'000)->Arg(900'000)->Iterations(20'000);
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
BENCHMARK(age_all)->Arg(1'000'000)->Iterations(20'000)->Unit(
    benchmark::kMicrosecond); // made once, as the floods
BENCHMARK_CAPTURE(find_in_flooded, shared_ip, shared_ip)->Apply(at_sizes_of_floods);
BENCHMARK_CAPTURE(find_in_flooded, no_ip, ip_bytes{})->Apply(at_sizes_of_floods);
BENCHMARK(find_forged_ip)->Apply(at_sizes_of_floods);
BENCHMARK(find_shared_ip_of_a_mover)->Apply(at_sizes_of_floods);
BENCHMARK(find_shared_ip_of_newcomers)->Apply(at_sizes_of_floods);
BENCHMARK(walk_all)->Apply(at_three_sizes)->Unit(benchmark::kMicrosecond);

} // namespace rtls
