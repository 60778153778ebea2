// tcp_listener - a port of the loopback that connections come in at.
//
// Threads    Belongs to one thread at a time.
// Failures   Throws std::system_error when a call fails that must not.
#pragma once

#include <cstdint>

namespace rtls {

class tcp_listener {
public:
    tcp_listener(); // on a port of its own
    explicit tcp_listener(uint16_t port);
    ~tcp_listener();
    tcp_listener(const tcp_listener&) = delete;
    tcp_listener& operator=(const tcp_listener&) = delete;

    uint16_t port() const { return m_port; }
    int fd() const { return m_fd; }
    // The next connection, once it is there; the caller's to close.
    int accept();

private:
    int m_fd;
    uint16_t m_port;
};

} // namespace rtls
