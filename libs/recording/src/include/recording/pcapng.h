// pcapng - recordings: messages of the tap as packets of a pcapng file, written and read.
//
// Ownership  Reader and writer borrow where bytes come from and go to.
// Threads    One at a time.
// Blocking   As the source and the sink.
// Bytes      Blocks are written little-endian, and read in either order, whichever each section has.
// Failures   Of a file that is read: how it ends. No length in it is believed: memory grows with the bytes that are
//            there. Of sources and sinks: file_error. Of memory: std::bad_alloc.
#pragma once

#include "recording/packet.h"
#include "recording/tap_message.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::recording {

class byte_source {
public:
    virtual ~byte_source() = default;
    // Fills `room`, or as much of it as there are bytes left.
    virtual size_t read(bytes_span room) = 0;
};

class byte_sink {
public:
    virtual ~byte_sink() = default;
    virtual void write(bytes_view bytes) = 0;
    // What has been written can be read by others.
    virtual void flush() = 0;
    // Flushed, and closed. To be called: a destructor cannot tell that it failed.
    virtual void close() = 0;
    // What stands in the file, as far as it has left the compressor.
    virtual uint64_t size() const = 0;
};

class pcapng_writer {
public:
    // Writes the head of the file. `application`: who it says wrote it.
    pcapng_writer(byte_sink& sink, std::string_view application);
    // One packet, at the time of the head's clock. False, and nothing written, when it is larger than a reader takes.
    bool write(const tap_message& message);

private:
    byte_sink& m_sink;
    std::vector<uint8_t> m_block;
};

enum class reading : uint8_t {
    message,
    end,
    cut,    // the file ends within a block, as when its writer was killed
    damaged // see reason()
};

class pcapng_reader {
public:
    explicit pcapng_reader(byte_source& source) : m_source(source) {}

    // The next message of the tap. Packets of others are passed over. Once it is not `message` it stays what it is.
    reading next(tap_message& message);
    const std::string& reason() const { return m_reason; }
    // How many packets were no whole messages of the tap.
    uint64_t passed_over() const { return m_passed_over; }

private:
    reading damaged(const char* why);
    reading read_block();
    reading read_section_order();
    reading read_body(size_t size);
    void note_interface();
    bool parse_packet_block(tap_message& message);
    uint16_t load16(bytes_view bytes, size_t at) const;
    uint32_t load32(bytes_view bytes, size_t at) const;

    byte_source& m_source;
    bool m_has_section = false;
    bool m_is_big_endian = false;
    std::vector<bool> m_is_ours; // by interface
    uint32_t m_type = 0;         // of the block at hand
    std::vector<uint8_t> m_body; // and what stands between its lengths
    reading m_state = reading::message;
    uint64_t m_passed_over = 0;
    std::string m_reason;
};

} // namespace rtls::recording
