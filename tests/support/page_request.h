// page_request - a node's request for a page of one image, as it stands in front of the node's address.
//
// Threads    Any. Nothing fails.
#pragma once

#include "support/hex_bytes.h"

#include <cstdint>

namespace rtls {

inline constexpr uint32_t git_id = 0x12345678;
inline constexpr uint32_t image_crc = 0x9ABCDEF0;

inline bytes_t be16(unsigned value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

inline bytes_t page_request(unsigned page_size, unsigned page_number)
{
    return hex("0E 01 07 0E 00  00 10  12 34 56 78  9A BC DE F0") + be16(page_size) + be16(page_number);
}

} // namespace rtls
