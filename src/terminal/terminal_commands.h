// terminal_commands - parses what an operator typed and runs it.
//
// Ownership  Nothing is kept of the arguments.
// Threads    Terminal thread. What a command needs of the registry, the firmware store and the table of
//            bridges is copied under their locks, and answered after.
// Blocking   An answer waits for the socket's send time-out at most. "fw get" does not wait for its transfer.
// Failures   Are answers; a null argument is logged. Memory that runs out throws std::bad_alloc.
#pragma once

#include "terminal/client.h"
#include "terminal/request.h"

#include <czmq.h>

namespace rtls {

// Runs the command in `text` (changed in place), and answers it. The words of `request` are those of the text.
// `quit` frees the operator's record: do not touch it afterwards.
void run_typed(terminal_request request, char* text);

// The same by handle, for those outside: for the operator `id_found`, with answers to the stream socket `reader`.
// The gateway (`p_rtls_gateway`: services) has a terminal server.
void terminal_commands_parse(void* p_rtls_gateway, TERMINAL_CLIENT_t* id_found, zsock_t* reader, char* string,
                             zsock_t* dbg_sock);

} // namespace rtls
