// One frame from a bridge, from the decoder's hand-over to what it causes: registry, ack, reports.
//
// The servers and the bridge are emptied between batches, outside of the measurement (dispatch_world.h).
#include "dispatch_world.h"

#include "wire/messaging.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace rtls {

namespace {

constexpr size_t batch = dispatch_world::batch;

// One frame again and again, its sequence number changing.
void dispatch(benchmark::State& state, const frame_case& c)
{
    dispatch_world world;
    world.introduce(1);
    world.keep_page();
    bytes_t frame = c.frame;
    while (state.KeepRunningBatch(batch)) {
        for (size_t i = 0; i < batch; i++) {
            ++frame[c.seq_at];
            benchmark::DoNotOptimize(world.receive(frame));
        }
        state.PauseTiming();
        if (!world.take(c.sent * batch))
            return state.SkipWithError("not every frame went its way");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

// A frame from a different one of `range(0)` known nodes each time; the node's number is at `numbers_at`.
void dispatch_from_many(benchmark::State& state, const bytes_t& original,
                        const std::vector<size_t>& numbers_at, size_t seq_at)
{
    dispatch_world world;
    const auto count = static_cast<uint32_t>(state.range(0));
    world.introduce(count);
    bytes_t frame = original;
    uint32_t number = 0;
    unsigned round = 0;
    while (state.KeepRunningBatch(batch)) {
        for (size_t i = 0; i < batch; i++) {
            number = (number + 7919) % count; // a prime: all of them, in no order of theirs
            round += number == 0;
            for (const size_t at : numbers_at)
                store_be32(frame, at, number);
            frame[seq_at] = static_cast<uint8_t>(round % 255 + 1); // never the zero of a new node
            benchmark::DoNotOptimize(world.receive(frame));
        }
        state.PauseTiming();
        if (!world.take(batch))
            return state.SkipWithError("not every frame went its way");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

} // namespace rtls

using namespace rtls;

int main(int argc, char** argv)
{
    for (const frame_case& c : frame_cases())
        benchmark::RegisterBenchmark(c.name, dispatch, c);

    const std::vector<size_t> heartbeat_numbers{gwMsgHeartbeat_t::long_addr + 4,
                                                gwMsgHeartbeat_t::ipaddr + 12};
    benchmark::RegisterBenchmark("heartbeat, of many nodes", dispatch_from_many, plain_heartbeat(),
                                 heartbeat_numbers, 2)
        ->Arg(1)
        ->Arg(1'000)
        ->Arg(100'000);
    const bytes_t sensor = direct_sensor_report();
    benchmark::RegisterBenchmark("sensor, direct, of many nodes", dispatch_from_many, sensor,
                                 std::vector{sensor.size() - 4}, 2)
        ->Arg(1)
        ->Arg(1'000)
        ->Arg(100'000);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
