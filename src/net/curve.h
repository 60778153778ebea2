// curve - CurveZMQ (RFC 26/CURVEZMQ) on the links to the servers and on the tap, with certificates in CZMQ's format.
//
// Ownership  A value; owns the gateway's own certificate and the servers' public keys.
// Threads    Read on the main thread; then only read, by any.
// Failures   What is configured and can't be read is an error in the log, and false: a link that was meant to
//            be closed must not stand open. Reading may throw std::bad_alloc.
#pragma once

#include "base/czmq_ptr.h"

#include <czmq.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace rtls {

enum class server_link : uint8_t { message_handler, pub_sub_proxy, pub_sub_proxy_input, debug_broker };
inline constexpr size_t server_links = 4;

// 40 characters of Z85 each (RFC 32/Z85).
struct curve_keys {
    std::string server;
    std::string own_public;
    std::string own_secret;
};

class curve_certificates {
public:
    // The optional section "curve". True, and all links stay open, without it.
    bool read(zconfig_t* config);

    // Whether the link is to be encrypted.
    bool closes(server_link link) const noexcept { return !m_servers[static_cast<size_t>(link)].empty(); }

    // Encrypts what the socket connects to from now on, if the link is to be. False when libzmq refuses.
    bool protect(zsock_t* socket, server_link link) const noexcept;

    // Whether the tap is to be encrypted, and the public key of those who may subscribe to it.
    bool closes_tap() const noexcept { return m_closes_tap; }
    const std::array<uint8_t, 32>& tap_subscribers() const noexcept { return m_tap_subscribers; }

    // Encrypts what connects to the socket (libzmq's handle) from now on. False when libzmq refuses.
    bool serve(void* socket) const noexcept;

    // For those who have no zsock. The link is to be encrypted.
    curve_keys keys(server_link link) const;

private:
    bool read_tap(zconfig_t* config);

    std::array<std::string, server_links> m_servers; // public keys, Z85; empty: not encrypted
    std::string m_own_public;
    std::string m_own_secret;
    bool m_closes_tap = false;
    std::array<uint8_t, 32> m_tap_subscribers{};
};

} // namespace rtls
