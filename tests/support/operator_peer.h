// operator_peer - one operator's TCP connection to the terminal port.
//
// Threads    Belongs to one thread at a time.
// Failures   Throws std::system_error when a call fails that must not.
#pragma once

#include "support/tcp_peer.h"
#include "support/wait.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace rtls {

class operator_peer {
public:
    explicit operator_peer(uint16_t port, int receive_buffer = 0) : m_peer{port, receive_buffer} {}

    void write(std::string_view bytes);
    // What was received, up to and with `end`, or all that came within the time.
    std::string read_until(std::string_view end, std::chrono::milliseconds time = patience);
    // Sends the command and returns the answer, which ends with `end`.
    std::string ask(std::string_view command, std::string_view end);
    // Whether the gateway closes the connection in time; what came before stays readable.
    bool is_closed(std::chrono::milliseconds time = patience);
    void close() { m_peer.close(); }
    uint16_t port() const { return m_peer.port(); }

private:
    tcp_peer m_peer;
    std::string m_received;
};

} // namespace rtls
