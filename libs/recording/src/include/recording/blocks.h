// blocks - what a pcapng file is made of, block by block, whatever is in them.
//
// Ownership  The reader borrows where bytes come from, and owns the block at hand.
// Threads    One at a time.
// Blocking   As the source.
// Bytes      In either order, whichever each section has: load16() and load32() know it.
// Failures   Of a file that is read: how it ends. No length in it is believed: memory grows with the bytes that are
//            there. Of sources: file_error. Of memory: std::bad_alloc.
#pragma once

#include "base/bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace rtls::recording {

class byte_source {
public:
    virtual ~byte_source() = default;
    // Fills `room`, or as much of it as there are bytes left.
    virtual size_t read(bytes_span room) = 0;
};

enum class reading : uint8_t {
    message,
    end,
    cut,    // the file ends within a block, as when its writer was killed
    damaged // see reason()
};

class block_reader {
public:
    static constexpr size_t interface_limit = 4096; // those beyond are nobody's

    explicit block_reader(byte_source& source) : m_source(source) {}

    // `message`: there is a block at hand. Once it is not `message` it stays what it is.
    reading next();
    const std::string& reason() const { return m_reason; }

    uint32_t type() const { return m_type; }
    bytes_view body() const { return m_body; } // what stands between its lengths, until next()
    // Of the body; `at` is within it.
    uint16_t load16(size_t at) const;
    uint32_t load32(size_t at) const;

private:
    reading damaged(const char* why);
    reading read_block();
    reading read_section_order();
    reading read_body(size_t size);
    uint32_t load32(bytes_view bytes, size_t at) const;

    byte_source& m_source;
    bool m_has_section = false;
    bool m_is_big_endian = false;
    uint32_t m_type = 0;
    std::vector<uint8_t> m_body;
    reading m_state = reading::message;
    std::string m_reason;
};

} // namespace rtls::recording
