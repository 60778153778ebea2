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

// A MAC (8 bytes) in lower-case hex, with a colon inside byte 5, before the digits by which the lists name
// a node: "abcdef012a:bcde3f" has it after the first half of its sixth byte. The format is the operators'.
class colon_mac_text {
public:
    explicit colon_mac_text(const uint8_t* mac) noexcept;
    const char* c_str() const noexcept { return m_text.data(); }

private:
    std::array<char, 18> m_text{};
};

// Asks the system for the peer of the connection `fd` to our port `own_port` (host order). False, `address`
// untouched, when it is gone: the number may be closed, or belong to a connection of another port by now.
bool read_peer_address(int fd, in_port_t own_port, sockaddr_in& address) noexcept;

} // namespace rtls
