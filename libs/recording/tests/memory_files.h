// memory_files - recordings in memory, for tests and fuzzing.
//
// Ownership  The sink owns its bytes; the source borrows them.
// Threads    One at a time.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "recording/pcapng.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace rtls::recording {

class memory_sink final : public byte_sink {
public:
    void write(bytes_view bytes) override { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }
    void flush() override {}
    void close() override {}
    uint64_t size() const override { return m_bytes.size(); }
    const std::vector<uint8_t>& bytes() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
};

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

} // namespace rtls::recording
