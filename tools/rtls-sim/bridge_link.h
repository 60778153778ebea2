// bridge_link - the TCP connection of one bridge to the gateway's WIN port, which frames and unframes.
//
// Never blocks. The owner polls fd() and calls on_ready; it decides when to connect again.
// Ownership  Owns its descriptor.
// Threads    Its owner's. Nothing waits.
// Failures   A connection that fails or ends is down, and the call says false.
#pragma once

#include "base/unique_fd.h"
#include "rtls-sim/wire.h"

#include <netinet/in.h>

#include <functional>

namespace sim {

class bridge_link {
public:
    enum class state { down, connecting, waiting, up }; // waiting: for the gateway's greeting

    // Starts to connect; false (and down) when that fails at once.
    bool connect(const sockaddr_in& gateway);
    void close();

    state now() const { return m_state; }
    int fd() const { return m_fd.get(); }
    // Whether the owner should poll for writing, too.
    bool wants_write() const { return m_state == state::connecting || m_sent < m_out.size(); }
    size_t unsent() const { return m_out.size() - m_sent; }

    // Frames a message and queues it.
    void queue(view message);
    // Writes what the socket takes. False when the connection is gone.
    bool flush();
    // Handles readiness: goes on connecting, writes, reads, and calls `received` with each message. False
    // when the connection is gone.
    bool on_ready(bool readable, bool writable, const std::function<void(view)>& received);

    uint64_t bytes_sent() const { return m_bytes_sent; }

private:
    bool finish_connecting();
    bool read(const std::function<void(view)>& received);
    view strip_greeting(view data);

    rtls::unique_fd m_fd;
    state m_state = state::down;
    size_t m_greeted = 0; // bytes of the greeting seen
    bytes m_out;
    size_t m_sent = 0;
    deframer m_in;
    uint64_t m_bytes_sent = 0;
};

} // namespace sim
