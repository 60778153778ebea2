// Recordings: whatever a file is, reading it ends, and takes no more memory than it has bytes; what is read from it is
// read again when it is written.
#include "fuzzing.h"
#include "memory_files.h"
#include "recording/capture.h"
#include "recording/pcapng.h"

namespace rtls::recording {

using fuzzing::require;

namespace {

reading read_all(bytes_view bytes, std::vector<tap_message>& messages)
{
    memory_source source{bytes};
    pcapng_reader reader{source};
    tap_message message;
    reading state = reading::end;
    while ((state = reader.next(message)) == reading::message)
        messages.push_back(message);
    require(reader.next(message) == state);
    require((state == reading::damaged) != reader.reason().empty());
    return state;
}

void read_as_capture(bytes_view bytes)
{
    memory_source source{bytes};
    capture_reader reader{source};
    captured_packet packet;
    reading state = reading::end;
    while ((state = reader.next(packet)) == reading::message)
        require(packet.bytes.size() <= bytes.size());
    require(reader.next(packet) == state);
    require((state == reading::damaged) != reader.reason().empty());
}

void written_and_read(const std::vector<tap_message>& messages)
{
    memory_sink sink;
    pcapng_writer writer{sink, "fuzzing"};
    for (const tap_message& message : messages)
        require(writer.write(message));
    std::vector<tap_message> again;
    require(read_all(sink.bytes(), again) == reading::end);
    require(again == messages);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    std::vector<tap_message> messages;
    tap_message one;
    if (input.u8() % 2 == 1) { // one packet, without the blocks around it
        if (parse_packet(input.copy(size), one))
            messages.push_back(one);
    } else {
        const auto file = input.copy(size);
        read_as_capture(file);
        read_all(file, messages);
    }
    written_and_read(messages);
    return 0;
}

} // namespace rtls::recording
