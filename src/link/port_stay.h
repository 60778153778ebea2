// port_stay - how long the WIN port's reader stays with the bridges before the loop asks everybody else.
//
// The loop asks each of its sources for news before and after it sleeps: some twenty system calls, which cost
// several times what a report does. So when the port is drained, the reader waits for the next bytes itself,
// for a few milliseconds in all, and ends as soon as another source has news.
//
// A call of the reader is a stay of some turns; a turn takes what is there, within its bounds.
//
// The library's descriptors tell of what comes, not of what is there: one falls silent as soon as anything has been
// asked of its socket. So a stay asks the others once, before it waits; and nothing that a turn does may touch the
// sockets of others that it watches, nor the port's own between its being drained and the wait.
// Ownership  Borrows the server.
// Threads    WIN server thread.
// Blocking   goes_on() waits until the stay's end, when nobody has anything to say. Timers are late by that and the
//            turn in which it falls.
// Failures   Whatever cannot be waited for ends the stay: the loop goes on as without one.
#pragma once

#include "link/win_server_private.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include <poll.h>

namespace rtls {

class port_stay {
public:
    static constexpr int64_t longest_us = 5000;
    // While timers of some milliseconds run: those of connections to be flushed or ended.
    static constexpr int64_t longest_beside_timers_us = 1000;

    // `began`: zclock_usecs.
    port_stay(WIN_SERVER_t& server, int64_t began) noexcept : m_server(server), m_began(began) {}

    // Whether the reader goes on: there may be more from the bridges. False when it is the turn of the others.
    // `drained_at`: when the port has been found drained (zclock_usecs), just now; none: events may be left, and
    // nothing waits.
    bool goes_on(std::optional<int64_t> drained_at) noexcept;

private:
    bool begin() noexcept;
    int64_t end() const noexcept;
    void watch(int descriptor) noexcept;

    WIN_SERVER_t& m_server;
    int64_t m_began;
    std::array<pollfd, 8> m_sources{}; // the port first
    nfds_t m_number = 0;               // of these; 0: not begun
};

} // namespace rtls
