// win_link_bench - bytes a second through the framing of the WIN link, by the share of bytes that need
// an escape: none, 1 % (what reports carry), all of them (the worst a peer can send).
#include "link/win_clients.h"
#include "wire/slip.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

namespace rtls {

namespace {

constexpr size_t report_size = 63;
constexpr size_t large_size = 8000;
constexpr size_t read_size = 8192; // what the stream socket gives at most

std::vector<uint8_t> message(size_t size, int special_percent)
{
    std::mt19937 random{1};
    std::uniform_int_distribution<int> percent{0, 99};
    std::uniform_int_distribution<int> ordinary{0, slip_start - 1};
    std::uniform_int_distribution<int> special{slip_start, slip_end};
    std::vector<uint8_t> bytes(size);
    std::ranges::generate(bytes, [&] {
        return static_cast<uint8_t>(percent(random) < special_percent ? special(random) : ordinary(random));
    });
    return bytes;
}

// One read full of frames, as many as fit.
std::vector<uint8_t> stream(size_t size, int special_percent)
{
    const std::vector<uint8_t> one = message(size, special_percent);
    std::vector<uint8_t> frame(slip_encoded_limit(size));
    frame.resize(slip_encode(one, frame.data()));
    std::vector<uint8_t> bytes;
    do
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    while (bytes.size() + frame.size() <= read_size);
    return bytes;
}

void encoder(benchmark::State& state)
{
    const auto bytes = message(static_cast<size_t>(state.range(0)), static_cast<int>(state.range(1)));
    std::vector<uint8_t> out(slip_encoded_limit(bytes.size()));
    while (state.KeepRunning())
        benchmark::DoNotOptimize(slip_encode(bytes, out.data()));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

void decoder(benchmark::State& state)
{
    const auto bytes = stream(static_cast<size_t>(state.range(0)), static_cast<int>(state.range(1)));
    zframe_t* id = zframe_new("\0abcd", 5);
    WIN_CLIENT_t* client = win_client_new(id);
    zframe_destroy(&id);
    size_t frames = 0;
    while (state.KeepRunning())
        win_client_decode(*client, bytes, [&](WIN_CLIENT_t&) { ++frames; });
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    void* record = client;
    win_client_destroy(&record);
}

void contents(benchmark::internal::Benchmark* bench)
{
    bench->ArgNames({"size", "special%"});
    for (const auto size : {report_size, large_size})
        for (const int special_percent : {0, 1, 100})
            bench->Args({static_cast<int64_t>(size), special_percent});
}

BENCHMARK(encoder)->Apply(contents);
BENCHMARK(decoder)->Apply(contents);

} // namespace

} // namespace rtls
