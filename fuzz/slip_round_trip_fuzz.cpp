// Messages that are framed and decoded again: they come out as they went in, whatever stands between the frames.
#include "fuzzing.h"
#include "link/win_clients.h"
#include "wire/slip.h"

namespace rtls {

using fuzzing::require;

namespace {

using byte_string = std::vector<uint8_t>;

size_t specials_in(bytes_view bytes)
{
    return static_cast<size_t>(
        std::ranges::count_if(bytes, [](uint8_t b) { return b >= slip_start && b <= slip_end; }));
}

byte_string framed(bytes_view message)
{
    byte_string frame(slip_encoded_limit(message.size()));
    frame.shrink_to_fit();
    frame.resize(slip_encode(message, frame.data()));
    require(frame.size() == message.size() + specials_in(message) + 2);
    require(frame.front() == slip_start && frame.back() == slip_end);
    return frame;
}

// The first special byte is where the run ends.
void check_run(bytes_view bytes)
{
    const size_t run = slip_ordinary_run(bytes);
    require(run <= bytes.size() && specials_in(bytes.first(run)) == 0);
    require(run == bytes.size() || slip_is_special(bytes[run]));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static WIN_CLIENT_t client;
    fuzzing::input input{data, size};
    byte_string stream;
    std::vector<byte_string> sent;
    while (!input.empty()) {
        const unsigned head = input.u8();
        byte_string piece = input.copy(head & 0x7F);
        check_run(piece);
        if ((head & 0x80) != 0) { // between two frames
            std::ranges::replace(piece, slip_start, uint8_t{0});
        } else {
            if (!piece.empty()) // an empty frame is no message
                sent.push_back(piece);
            piece = framed(piece);
        }
        stream.insert(stream.end(), piece.begin(), piece.end());
    }
    std::vector<byte_string> came;
    client.parsing_state = PS_NONE;
    win_client_decode(client, stream, [&](WIN_CLIENT_t& complete) {
        const uint8_t* begin = complete.pending_data.get();
        came.emplace_back(begin, begin + complete.pending_data_size);
    });
    require(came == sent && client.parsing_state == PS_NONE);
    return 0;
}

} // namespace rtls
