// tap_guard - who may connect to an encrypted tap: who has the secret key of one certificate.
//
// The library asks by a channel within the tap's context (RFC 27/ZAP) for each connection to a socket of that context
// that serves CURVE, of which the tap is the only one. Who connects is let in when he has been answered for, not before.
// Ownership  Owns its end of the channel.
// Threads    WIN server thread.
// Blocking   Nothing waits: who connects waits for the next answer().
// Failures   A channel that cannot be opened is false, with errno. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "tap/tap_context.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace rtls {

class tap_guard {
public:
    static constexpr size_t key_size = 32;
    using key = std::array<uint8_t, key_size>;

    // In the tap's context, before the tap is bound. `admitted`: the public key of the one certificate.
    bool open(void* context, const key& admitted);
    void close() noexcept { m_sock.reset(); }

    // Answers what the library has asked meanwhile; how many have been refused.
    uint64_t answer() noexcept;

private:
    bool answer_next(bool& is_refused) noexcept;

    zmq_socket_ptr m_sock;
    key m_admitted{};
};

} // namespace rtls
