// Commands from the proxy's socket to those of the bridges, through the server's loop: parsing, the node's route,
// framing, sending.
#include "command_world.h"

#include <benchmark/benchmark.h>

#include <string>

namespace rtls {

namespace {

void carry_out(benchmark::State& state, const command_case& command)
{
    command_world world{static_cast<size_t>(state.range(0))};
    world.publish(command);
    while (state.KeepRunningBatch(command_world::batch)) {
        if (!world.carry_out())
            return state.SkipWithError("not every command was sent");
        state.PauseTiming();
        if (!world.take())
            return state.SkipWithError("not every command arrived");
        world.publish(command);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

} // namespace rtls

using namespace rtls;

int main(int argc, char** argv)
{
    for (const command_case& command : command_cases())
        benchmark::RegisterBenchmark(command.name, carry_out, command)->ArgName("bridges")->Arg(16)->Arg(200);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
