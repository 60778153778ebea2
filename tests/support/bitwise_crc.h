// bitwise_crc - the CRC of IEEE 802.3 as it is defined, bit by bit: what the daemon's tables are compared
// with.
//
// Threads    Any. Nothing fails.
#pragma once

#include <cstdint>

namespace rtls {

// The remainder that `bytes` (a range of them) leave after `crc`, without an inversion before or after: with
// 0 the nodes' own rule, as their boot loader documents it.
template <typename Bytes>
uint32_t crc_remainder(const Bytes& bytes, uint32_t crc = 0)
{
    for (const auto byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
    }
    return crc;
}

// The usual CRC, inverted before and after.
template <typename Bytes>
uint32_t standard_crc(const Bytes& bytes)
{
    return ~crc_remainder(bytes, 0xFFFFFFFF);
}

} // namespace rtls
