// block_format - what the writer and the readers of pcapng have in common.
//
// Ownership  None: constants.
// Threads    Any.
// Bytes      In the order of each section.
// Failures   None.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rtls::recording {

namespace block_type {
constexpr uint32_t section = 0x0A0D0D0A; // reads the same in either order
constexpr uint32_t interface = 1;
constexpr uint32_t enhanced_packet = 6;
} // namespace block_type

namespace option {
constexpr uint16_t end = 0;
constexpr uint16_t application = 4; // of a section
constexpr uint16_t resolution = 9;  // of an interface's times
} // namespace option

constexpr uint32_t section_order_magic = 0x1A2B3C4D;
constexpr size_t block_frame = 12;       // type, length, and the length again
constexpr size_t section_body = 16;      // without options
constexpr size_t interface_body = 8;     // without options
constexpr size_t packet_block_head = 20; // up to the packet's bytes
// Of a block: far above what a gateway's messages take, far below what memory has.
constexpr size_t block_limit = size_t{64} << 20;

} // namespace rtls::recording
