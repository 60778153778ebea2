// tcp_peer - a plain TCP client on the loopback, as bare as a bridge's own stack.
//
// Threads    Belongs to one thread at a time.
// Failures   Throws std::system_error when a call fails that must not.
#pragma once

#include "support/wait.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace rtls {

class tcp_peer {
public:
    // `receive_buffer`: the size of the socket's own buffer, 0 for the system's default.
    explicit tcp_peer(uint16_t port, int receive_buffer = 0);
    ~tcp_peer();
    tcp_peer(tcp_peer&& other) noexcept;
    tcp_peer& operator=(tcp_peer&&) = delete;

    // The port of this end.
    uint16_t port() const;
    void send(std::span<const uint8_t> bytes);
    // `count` bytes; fewer when the connection ends or the time is over.
    std::string receive(size_t count, std::chrono::milliseconds time = patience);
    // Adds what comes next, up to `limit` bytes; false when nothing comes in time or the connection ends.
    bool receive_more(std::string& received, std::chrono::milliseconds time, size_t limit = SIZE_MAX);
    // All that is there now.
    std::string receive_available();
    // Whether the other end closes (or has closed) the connection in time; what it still sends is read.
    bool is_closed(std::chrono::milliseconds time = patience);
    // Whether the end of the connection has been read.
    bool has_ended() const { return m_ended; }
    void close();

private:
    bool wait_readable(std::chrono::milliseconds time) const;

    int m_fd;
    bool m_ended = false;
};

} // namespace rtls
