// segment - what a captured packet has of a TCP connection.
//
// Ownership  A segment borrows the packet's bytes.
// Threads    Any; pure functions.
// Bytes      As they went over the network.
// Failures   What is no TCP, or is cut before its payload, is no segment; nor are fragments of IP packets, and packets
//            within others (tunnels).
#pragma once

#include "base/bytes.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace tail {

struct tcp_end {
    std::array<uint8_t, 16> address{}; // of IPv4 as IPv6 has it: ::ffff:1.2.3.4
    uint16_t port = 0;
    // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the 0 that compilers compare with for a pointer
    auto operator<=>(const tcp_end&) const = default;
};

// "10.0.0.2:20000", "[fd00::1]:20000"
std::string text_of(const tcp_end& end);

struct tcp_segment {
    tcp_end from;
    tcp_end to;
    uint32_t sequence = 0;    // of its first byte
    bool is_begin = false;    // SYN: the first byte of the connection has the next number
    rtls::bytes_view payload; // as far as it was captured
};

// `link`: what the packet begins with, of rtls::recording::link_type.
std::optional<tcp_segment> segment_in(uint16_t link, rtls::bytes_view packet);

} // namespace tail
