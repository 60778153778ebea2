// pcapng - recordings: messages of the tap as packets of a pcapng file, written and read.
//
// Ownership  Reader and writer borrow where bytes come from and go to.
// Threads    One at a time.
// Blocking   As the source and the sink.
// Bytes      Blocks are written little-endian, and read in either order, whichever each section has.
// Failures   Of a file that is read: how it ends. No length in it is believed: memory grows with the bytes that are
//            there. Of sources and sinks: file_error. Of memory: std::bad_alloc.
#pragma once

#include "recording/blocks.h"
#include "recording/packet.h"
#include "recording/tap_message.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::recording {

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

class pcapng_reader {
public:
    explicit pcapng_reader(byte_source& source) : m_blocks(source) {}

    // The next message of the tap. Packets of others are passed over. Once it is not `message` it stays what it is.
    reading next(tap_message& message);
    const std::string& reason() const { return m_blocks.reason(); }
    // How many packets were no whole messages of the tap.
    uint64_t passed_over() const { return m_passed_over; }

private:
    void note_interface();
    bool parse_packet_block(tap_message& message);

    block_reader m_blocks;
    std::vector<bool> m_is_ours; // by interface
    uint64_t m_passed_over = 0;
};

} // namespace rtls::recording
