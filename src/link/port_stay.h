// port_stay - how long the WIN port's reader stays with the bridges before the loop asks everybody else.
//
// The loop asks each of its sources for news before and after it sleeps: some twenty system calls, which cost
// several times what a report does. So when the port is drained, the reader waits for the next bytes itself,
// for a few milliseconds in all, and ends as soon as another source has news.
// Threads    WIN server thread.
// Blocking   goes_on() waits until the stay's end, when nobody has anything to say. Timers are late by no more.
// Failures   Whatever cannot be waited for ends the stay: the loop goes on as without one.
#pragma once

#include "link/win_server_private.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include <poll.h>

namespace rtls {

class port_stay {
public:
    static constexpr int64_t longest_us = 5000;

    // `began`: zclock_usecs. The server outlives the stay.
    port_stay(WIN_SERVER_t& server, int64_t began) noexcept : m_server(server), m_until(began + longest_us) {}

    // Whether the reader goes on: there may be more from the bridges. `now`: its last look at the clock, of which it
    // takes one for each event that it has waited for. It has just drained the port (undrained_since is 0), or
    // events are left. False when it is the turn of the others.
    bool goes_on(int64_t now) noexcept;

private:
    bool begin() noexcept;
    void watch(int descriptor) noexcept;
    void watch(zsock_t* sock) noexcept;

    WIN_SERVER_t& m_server;
    int64_t m_until;
    std::array<pollfd, 5> m_sources{}; // the port first
    nfds_t m_number = 0;               // of these; 0: not begun
};

} // namespace rtls
