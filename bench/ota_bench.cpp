// How fast the store serves pages to nodes, and what it costs to check an image.
#include "base/common.h"
#include "base/czmq_ptr.h"
#include "firmware/crc32.h"
#include "firmware/ota.h"

#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <vector>

namespace rtls {

using store_ptr = std::unique_ptr<void, destroyed_by<ota_destroy>>;

static constexpr size_t image_size = 200'000; // what node images have, about
static constexpr uint32_t git = 1;
static constexpr uint32_t crc = 2;

static store_ptr store_with_image(uint32_t page_size)
{
    store_ptr store{ota_new(5)};
    const std::vector<uint8_t> page(page_size, 0x5A);
    for (uint32_t i = 0; i < image_size / page_size; ++i)
        ota_set_firmware_page(store.get(), git, crc, page_size, i, page.data());
    return store;
}

static void page_read(benchmark::State& state)
{
    const auto page_size = static_cast<uint32_t>(state.range(0));
    const store_ptr store = store_with_image(page_size);
    std::vector<uint8_t> page(page_size);
    uint32_t number = 0;
    for (auto _ : state) {
        if (!ota_get_firmware_page(store.get(), git, crc, page_size, number, page.data()))
            state.SkipWithError("page not there");
        benchmark::DoNotOptimize(page.data());
        number = (number + 1) % static_cast<uint32_t>(image_size / page_size);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(page_size));
}
BENCHMARK(page_read)->Arg(32)->Arg(128)->Arg(768);

static void page_store(benchmark::State& state)
{
    const auto page_size = static_cast<uint32_t>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(store_with_image(page_size));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(image_size / page_size));
}
BENCHMARK(page_store)->Arg(128)->Arg(768);

static void crc_of_an_image(benchmark::State& state)
{
    const std::vector<uint8_t> image(image_size, 0x5A);
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32_byte(image.data(), static_cast<uint32_t>(image.size())));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(image_size));
}
BENCHMARK(crc_of_an_image);

} // namespace rtls
