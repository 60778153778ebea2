// upstream - reports on their way to the servers: binary ones to the message handler, texts to the proxy's
// input.
//
// Both sends are don't-wait: a server that is down or slow costs its own reports and stalls nobody. A queue
// that is full for a moment only, with its server there, makes the intake pause (link/intake.h).
//
// Threads    WIN server thread.
// Bytes      Reports go as they are given: big-endian. The time before them is big-endian, too.
// Failures   A full queue is said once an episode; what it does not take is lost, and counted: how many were
//            lost in how long is said at the episode's end, or at the stop.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// One report, and the time of its generation (seconds of the epoch, milliseconds) in a part before it.
void data_to_msg_handler(WIN_SERVER_t* server, const uint8_t* data, size_t size, uint32_t seconds,
                         uint16_t milliseconds);

// The same for the tap, whose subscribers want it.
void tap_report(WIN_SERVER_t& server, bytes_view data, uint32_t seconds, uint16_t milliseconds);

// One management line with this text, stamped with the present time.
void win_management_to_server(WIN_SERVER_t* server, const char* text);

// The server stops: says what queues that are still full have cost.
void upstream_stopping(WIN_SERVER_t& server) noexcept;

} // namespace rtls
