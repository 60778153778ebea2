// Fuzzes the receiving end of a download: the input is cut into header lines and pieces of body, in any
// order, as a hostile server may have them arrive.
#include "base/bytes.h"
#include "firmware/image_download.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

namespace rtls {

// Each step starts with one byte: what it is, and how many bytes follow.
static constexpr uint8_t is_header = 0x80; // rather than body
static constexpr uint8_t is_length = 0x40; // the header's name stands before the bytes
static constexpr uint8_t length_mask = 0x3F;
static constexpr char length_header[] = "Content-Length: ";

static void download(bytes_view input, const image_download_options& options)
{
    image_receiver receiver{options};
    std::vector<char> accepted;
    while (!input.empty()) {
        const uint8_t step = input[0];
        const bytes_view bytes = input.subspan(1, std::min<size_t>(step & length_mask, input.size() - 1));
        input = input.subspan(1 + bytes.size());
        // Vectors end where the sanitizer looks, unlike strings.
        std::vector<char> piece;
        if ((step & is_header) != 0 && (step & is_length) != 0)
            piece.assign(std::begin(length_header), std::end(length_header) - 1);
        piece.insert(piece.end(), bytes.begin(), bytes.end());
        piece.shrink_to_fit();
        if ((step & is_header) != 0)
            receiver.take_header({piece.data(), piece.size()});
        else if (receiver.take_body(bytes))
            accepted.insert(accepted.end(), piece.begin(), piece.end());
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

} // namespace rtls
