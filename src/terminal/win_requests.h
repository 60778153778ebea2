// win_requests - asks the WIN server's thread to send something to a node.
//
// Threads    Terminal thread.
// Blocking   Nothing waits.
// Bytes      A request is a header, a payload and the node's MAC, as wire/node_commands.h makes them.
// Failures   A request that the WIN server does not take is logged and counted.
#pragma once

#include "base/bytes.h"

namespace rtls {

struct TERMINAL_SERVER_t;

// False when the WIN server does not take it: its queue is full, or the terminal server does not run.
bool ask_win_server(TERMINAL_SERVER_t& server, bytes_view request) noexcept;

} // namespace rtls
