// Fuzzes the receiving end of a download: the input is cut into header lines and pieces of body, in any
// order, as a hostile server may have them arrive.
#include "image_download.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

// Each step starts with one byte: bit 7 says header or body, the rest how many bytes follow.
static constexpr uint8_t is_header = 0x80;

static void download(std::span<const uint8_t> input, const image_download_options& options)
{
    image_receiver receiver{options};
    std::string accepted;
    while (!input.empty()) {
        const uint8_t step = input[0];
        const size_t length = std::min<size_t>(step & ~is_header, input.size() - 1);
        // In memory of its own, so that the sanitizer sees a read past its end.
        const std::unique_ptr<uint8_t[]> bytes{new uint8_t[length]};
        std::copy_n(input.begin() + 1, length, bytes.get());
        input = input.subspan(length + 1);
        if ((step & is_header) != 0)
            receiver.take_header({reinterpret_cast<const char*>(bytes.get()), length});
        else if (receiver.take_body({bytes.get(), length}))
            accepted.append(reinterpret_cast<const char*>(bytes.get()), length);
    }
    const auto image = receiver.release();
    if (!image || image->size != accepted.size() ||
        (!accepted.empty() && std::memcmp(image->memory.get(), accepted.data(), accepted.size()) != 0))
        std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    download({data, size}, {.caller = "fuzz"});
    download({data, size}, {.caller = "fuzz", .bad_length_aborts = true, .reports_missing_length = true});
    return 0;
}
