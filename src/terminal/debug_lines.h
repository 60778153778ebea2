// debug_lines - carries the lines of the debug stream to the operators who want them.
//
// Threads    The actor's.
// Blocking   As every send to an operator (operators_port.h).
// Failures   Without memory a line is logged and lost.
#pragma once

#include <czmq.h>

namespace rtls {

// The loop's handler of the stream's collecting end: a turn of lines. `p_server`: TERMINAL_SERVER_t.
int handle_dbg_message(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

} // namespace rtls
