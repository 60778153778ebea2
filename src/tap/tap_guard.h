// tap_guard - who may connect to an encrypted tap: who has the secret key of one certificate.
//
// The library asks by a channel within the process (RFC 27/ZAP) for each connection to a socket that serves CURVE, of
// which the tap is the only one. Without an answer nobody is let in.
// Ownership  Owns its end of the channel.
// Threads    WIN server thread.
// Blocking   Nothing waits: who connects waits for the next answer().
// Failures   A channel that cannot be opened is false, with errno. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "base/czmq_ptr.h"

#include <czmq.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace rtls {

class tap_guard {
public:
    static constexpr size_t key_size = 32;
    using key = std::array<uint8_t, key_size>;

    // Before the tap is bound. `admitted`: the certificate's public key.
    bool open(const key& admitted);
    void close() noexcept { m_sock.reset(); }

    // Answers what the library has asked meanwhile; how many have been refused.
    uint64_t answer() noexcept;

private:
    bool answer_next(bool& is_refused) noexcept;

    zsock_ptr m_sock;
    key m_admitted{};
};

} // namespace rtls
