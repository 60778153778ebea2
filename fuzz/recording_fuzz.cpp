// Recordings: whatever a file is, reading it ends, and takes no more memory than it has bytes; what is read from it is
// read again when it is written.
#include "fuzzing.h"
#include "recording/pcapng.h"

namespace rtls::recording {

using fuzzing::require;

namespace {

class memory_source final : public byte_source {
public:
    explicit memory_source(bytes_view bytes) : m_rest(bytes) {}
    size_t read(bytes_span room) override
    {
        const size_t size = std::min(room.size(), m_rest.size());
        store_bytes(room, 0, m_rest.first(size));
        m_rest = m_rest.subspan(size);
        return size;
    }

private:
    bytes_view m_rest;
};

class memory_sink final : public byte_sink {
public:
    void write(bytes_view bytes) override { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }
    void flush() override {}
    void close() override {}
    uint64_t size() const override { return m_bytes.size(); }
    const fuzzing::bytes_t& bytes() const { return m_bytes; }

private:
    fuzzing::bytes_t m_bytes;
};

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
    } else
        read_all(input.copy(size), messages);
    written_and_read(messages);
    return 0;
}

} // namespace rtls::recording
