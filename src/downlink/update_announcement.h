// update_announcement - tells bridges that there is a new firmware image for them.
//
// Threads    WIN server thread. No lock of its own; nothing waits.
// Bytes      The message is a type, little-endian, and a sequence number of 0.
// Failures   A null server is logged. What a bridge does not take waits in its unsent messages.
#pragma once

#include <czmq.h>

namespace rtls {

struct WIN_SERVER_t;

// Sends MSG_UPDATE_CMD to all bridges, in table order. None of them counts as updated any more; the line of each
// follows its send.
void update_command_to_all(WIN_SERVER_t& server);

// The same by handle, for those outside; or, with an identity, to that one bridge alone.
void win_server_nodes_update(void* p_win_server, zframe_t* client_id);

} // namespace rtls
