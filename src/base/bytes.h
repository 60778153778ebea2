// bytes - loads and stores with the byte order in the verb, and a reader for variable payloads.
//
// Several messages mix byte orders on purpose, so nothing here guesses: every call says le or be.
// Ownership  None: views and spans are the caller's.
// Threads    Any; pure functions.
// Failures   None: an offset beyond the bytes is the caller's fault, which debug builds catch.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace rtls {

using bytes_view = std::span<const uint8_t>;
using bytes_span = std::span<uint8_t>;

constexpr uint16_t load_le16(bytes_view b, size_t at)
{
    assert(at + 2 <= b.size());
    return static_cast<uint16_t>(b[at] | b[at + 1] << 8);
}

constexpr uint16_t load_be16(bytes_view b, size_t at)
{
    assert(at + 2 <= b.size());
    return static_cast<uint16_t>(b[at] << 8 | b[at + 1]);
}

constexpr uint32_t load_le32(bytes_view b, size_t at)
{
    assert(at + 4 <= b.size());
    return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 |
           static_cast<uint32_t>(b[at + 2]) << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

constexpr uint32_t load_be32(bytes_view b, size_t at)
{
    assert(at + 4 <= b.size());
    return static_cast<uint32_t>(b[at]) << 24 | static_cast<uint32_t>(b[at + 1]) << 16 |
           static_cast<uint32_t>(b[at + 2]) << 8 | static_cast<uint32_t>(b[at + 3]);
}

constexpr uint64_t load_be64(bytes_view b, size_t at)
{
    return uint64_t{load_be32(b, at)} << 32 | load_be32(b, at + 4);
}

constexpr void store_le16(bytes_span b, size_t at, uint16_t value)
{
    assert(at + 2 <= b.size());
    b[at] = static_cast<uint8_t>(value);
    b[at + 1] = static_cast<uint8_t>(value >> 8);
}

constexpr void store_be16(bytes_span b, size_t at, uint16_t value)
{
    assert(at + 2 <= b.size());
    b[at] = static_cast<uint8_t>(value >> 8);
    b[at + 1] = static_cast<uint8_t>(value);
}

constexpr void store_be32(bytes_span b, size_t at, uint32_t value)
{
    assert(at + 4 <= b.size());
    b[at] = static_cast<uint8_t>(value >> 24);
    b[at + 1] = static_cast<uint8_t>(value >> 16);
    b[at + 2] = static_cast<uint8_t>(value >> 8);
    b[at + 3] = static_cast<uint8_t>(value);
}

constexpr void store_be64(bytes_span b, size_t at, uint64_t value)
{
    store_be32(b, at, static_cast<uint32_t>(value >> 32));
    store_be32(b, at + 4, static_cast<uint32_t>(value));
}

// Copies all of `from` into `to` at offset `at`.
inline void store_bytes(bytes_span to, size_t at, bytes_view from)
{
    assert(at + from.size() <= to.size());
    if (!from.empty())
        std::memcpy(to.data() + at, from.data(), from.size());
}

} // namespace rtls
