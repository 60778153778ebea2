// crc32 - the checksum of firmware images in the store.
#pragma once

#include <cstdint>

namespace rtls {

// CRC-32 of IEEE 802.3 (CRC-32/ISO-HDLC). 0 for no bytes; 0 and a log line for a null pointer.
uint32_t crc32_byte(const uint8_t* p, uint32_t bytelength);

} // namespace rtls
