// peer - who is at the other end of a connection: its address and its texts.
//
// Ownership  Descriptors stay the library's: they are asked, never closed.
// Threads    Any. Nothing waits.
// Failures   Of the system: a result, or nothing done. Nothing is logged or throws.
#pragma once

#include "base/hex.h"

#include <czmq.h>
#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rtls {

// A frame's bytes; none without a frame.
inline std::span<const uint8_t> frame_bytes(zframe_t* frame) noexcept
{
    if (!frame)
        return {};
    return {zframe_data(frame), zframe_size(frame)};
}

// A routing identity as upper-case hex: the key of a client in its server's table.
class identity_key {
public:
    explicit identity_key(std::span<const uint8_t> identity) noexcept
    {
        *write_hex(identity.first(identity.size() < longest ? identity.size() : longest), m_text.data()) =
            '\0';
    }
    // Of the frame's bytes; the frame is there.
    explicit identity_key(zframe_t* identity) noexcept : identity_key(frame_bytes(identity)) {}
    const char* c_str() const noexcept { return m_text.data(); }

private:
    static constexpr size_t longest = 255; // ZeroMQ's own limit; a stream's identity has 5 bytes
    std::array<char, 2 * longest + 1> m_text;
};

// An IPv4 address in dotted text.
class ipv4_text {
public:
    explicit ipv4_text(in_addr address) noexcept;
    explicit ipv4_text(const sockaddr_in& peer) noexcept : ipv4_text(peer.sin_addr) {}
    const char* c_str() const noexcept { return m_text.data(); }

private:
    std::array<char, INET_ADDRSTRLEN> m_text{};
};

// An IPv6 address (16 bytes) in text.
class ipv6_text {
public:
    explicit ipv6_text(const uint8_t* address) noexcept;
    const char* c_str() const noexcept { return m_text.data(); }

private:
    std::array<char, INET6_ADDRSTRLEN> m_text{};
};

// A MAC (8 bytes) has two texts, both in lower-case hex and both read by operators' scripts. Lists, and lines
// about connections, have one colon inside byte 5, before the digits by which they name
// a node: "abcdef012ab:cde3f" has it after the first half of its sixth byte.
class colon_mac_text {
public:
    explicit colon_mac_text(const uint8_t* mac) noexcept;
    const char* c_str() const noexcept { return m_text.data(); }

private:
    std::array<char, 18> m_text{};
};

// Debug lines of single messages have a colon between any two bytes: "ab:cd:ef:01:2a:bc:de:3f". Cheap, for most
// lines that it is made for nobody wants.
class octets_mac_text {
public:
    explicit octets_mac_text(const uint8_t* mac) noexcept
    {
        for (size_t i = 0; i < octets; ++i) {
            m_text[3 * i] = "0123456789abcdef"[mac[i] >> 4];
            m_text[3 * i + 1] = "0123456789abcdef"[mac[i] & 0x0F];
            m_text[3 * i + 2] = i + 1 < octets ? ':' : '\0';
        }
    }
    const char* c_str() const noexcept { return m_text.data(); }

private:
    static constexpr size_t octets = 8;
    std::array<char, 3 * octets> m_text;
};

// Asks the system for the peer of the connection `fd` to our port `own_port` (host order). False, `address`
// untouched, when it is gone: the number may be closed, or belong to a connection of another port by now.
bool read_peer_address(int fd, in_port_t own_port, sockaddr_in& address) noexcept;

} // namespace rtls
