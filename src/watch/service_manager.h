// service_manager - what systemd is told: that the daemon serves, how it is, that it lives, that it stops.
//
// Without NOTIFY_SOCKET in the environment nothing is done. READY=1 follows the start, STOPPING=1 begins the
// stop, STATUS= has a line of figures every ten seconds. Where the unit has a WatchdogSec=, WATCHDOG=1 is sent
// twice in that time, but only while both actors' loops turn: when one stands, systemd starts the daemon anew.
// Ownership  The gateway outlives it.
// Threads    Main thread; it has none of its own.
// Blocking   As systemd's socket does: not, unless systemd reads none of the last hundreds of messages.
// Failures   What cannot be sent is not sent.
#pragma once

#include "services.h"
#include "watch/actors_pulse.h"

#include <cstdint>
#include <string>

namespace rtls {

class service_manager {
public:
    explicit service_manager(const services& gateway) noexcept;

    // Both servers serve.
    void ready() noexcept;
    // Several times a second while they do.
    void tend() noexcept;
    void stopping() noexcept;

private:
    void tell_status(int64_t now_ms);
    void keep_alive(int64_t now_ms);

    const services& m_gateway;
    const bool m_is_there;
    const int64_t m_watchdog_ms; // 0: none
    const actors_pulse m_pulse;
    int64_t m_next_status = 0;
    int64_t m_next_sign = 0;
};

// "3 bridges, 120 nodes, 45678 messages handed over, 0 lost; message handler up, proxy up, proxy input down".
// Takes the registry's lock for a moment. Throws std::bad_alloc.
std::string status_line(const services& gateway);

} // namespace rtls
