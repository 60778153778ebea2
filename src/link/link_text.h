// link_text - the short texts by which the WIN link names a peer, made on the stack where they are used.
#pragma once

#include "base/hex.h"

#include <arpa/inet.h>
#include <czmq.h>
#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>

namespace rtls {

// A routing identity as upper-case hex: the key of a client in its server's table.
class client_key {
public:
    explicit client_key(std::span<const uint8_t> identity)
    {
        *write_hex(identity.first(identity.size() < max_identity ? identity.size() : max_identity),
                   m_text.data()) = '\0';
    }
    explicit client_key(zframe_t* identity)
        : client_key(std::span<const uint8_t>{zframe_data(identity), zframe_size(identity)})
    {
    }
    const char* c_str() const { return m_text.data(); }

private:
    static constexpr size_t max_identity = 255; // ZeroMQ's own limit; a stream's identity has 5 bytes
    std::array<char, 2 * max_identity + 1> m_text;
};

// The IPv4 address of a peer in dotted text.
class ipv4_text {
public:
    explicit ipv4_text(const sockaddr_in& addr) : m_text{}
    {
        inet_ntop(AF_INET, &addr.sin_addr, m_text.data(), INET_ADDRSTRLEN);
    }
    const char* c_str() const { return m_text.data(); }

private:
    std::array<char, INET_ADDRSTRLEN> m_text;
};

// Bytes of any number as upper-case hex; empty when memory is short. Costly: make one only for a line
// that is wanted.
class hex_text {
public:
    explicit hex_text(std::span<const uint8_t> bytes) : m_text(new (std::nothrow) char[2 * bytes.size() + 1])
    {
        if (m_text)
            *write_hex(bytes, m_text.get()) = '\0';
    }
    const char* c_str() const { return m_text ? m_text.get() : ""; }

private:
    std::unique_ptr<char[]> m_text;
};

} // namespace rtls
