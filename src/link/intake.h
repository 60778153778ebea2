// intake - pauses the reading of the WIN port while a queue towards a server upstream is full for a moment:
// what the bridges send waits in TCP.
//
// Timers, commands and discovery go on meanwhile. A pause ends when all that waits has been handed over, or
// has been given up (upstream_queue.h).
//
// Threads    WIN server thread.
// Failures   Without memory for the pause what waits is given up, and reading goes on.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// Something waits now: no more events are taken from the WIN port, the reader's present call included. The
// server has a loop. Does nothing during a pause.
void intake_pause(WIN_SERVER_t& server);

} // namespace rtls
