// The decoder of the bridges' streams: it finds the same frames however the reads are cut, byte by byte, and as a
// machine that knows no shortcuts.
#include "fuzzing.h"
#include "link/win_clients.h"
#include "wire/slip.h"

#include <optional>
#include <utility>

namespace rtls {

using fuzzing::require;

namespace {

using frame_list = std::vector<std::vector<uint8_t>>;

// What a stream holds, told a byte at a time.
frame_list plain_frames(bytes_view stream)
{
    frame_list frames;
    std::optional<std::vector<uint8_t>> frame; // since a START
    bool is_literal = false;
    for (const uint8_t byte : stream) {
        if (!frame) {
            if (byte == slip_start)
                frame.emplace();
        } else if (std::exchange(is_literal, false) || !slip_is_special(byte)) {
            frame->push_back(byte);
        } else if (byte == slip_esc) {
            is_literal = true;
        } else if (byte == slip_start) {
            frame->clear();
        } else {
            if (!frame->empty())
                frames.push_back(*frame);
            frame.reset();
        }
    }
    return frames;
}

// The pieces' sizes come from `cuts`, over and over; a size of zero is one of them.
frame_list decoded(WIN_CLIENT_t& client, bytes_view stream, bytes_view cuts)
{
    frame_list frames;
    client.parsing_state = PS_NONE;
    for (size_t i = 0; !stream.empty(); ++i) {
        const size_t wanted = cuts.empty() ? stream.size() : cuts[i % cuts.size()];
        const size_t piece = i < cuts.size() ? wanted : std::max<size_t>(wanted, 1);
        const bytes_view read = stream.first(std::min(piece, stream.size()));
        const std::vector<uint8_t> exact{read.begin(), read.end()};
        win_client_decode(client, exact, [&](WIN_CLIENT_t& complete) {
            const uint8_t* begin = complete.pending_data.get();
            frames.emplace_back(begin, begin + complete.pending_data_size);
        });
        stream = stream.subspan(read.size());
    }
    return frames;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static WIN_CLIENT_t client;
    fuzzing::input input{data, size};
    const bytes_view cuts = input.view(input.u8() % 8);
    const bytes_view stream = input.rest();
    const frame_list expected = plain_frames(stream);
    constexpr uint8_t single[] = {1};
    require(decoded(client, stream, cuts) == expected);
    require(decoded(client, stream, single) == expected);
    require(decoded(client, stream, {}) == expected);
    return 0;
}

} // namespace rtls
