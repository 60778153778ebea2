// crc32 - the checksums of firmware images and of their pages.
//
// The arithmetic is zlib's: on whole images it is half as fast again as eight tables of our own.
// Threads    Any. Nothing waits.
// Failures   A null pointer is logged; nothing throws.
#pragma once

#include "base/bytes.h"

#include <cstdint>

namespace rtls {

// CRC-32 of IEEE 802.3 (CRC-32/ISO-HDLC). 0 for no bytes; 0 and a log line for a null pointer.
uint32_t crc32_byte(const uint8_t* p, uint32_t bytelength);

// The nodes' own rule, by which they check pages: the same without inversion before or after. The bytes
// are there, if only none of them.
uint32_t crc32_uninverted(bytes_view bytes);

} // namespace rtls
