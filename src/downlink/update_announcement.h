// update_announcement - tells bridges that there is a new firmware image for them.
//
// Threads    WIN server thread. No lock of its own; nothing waits.
// Bytes      The message is a type, little-endian, and a sequence number of 0.
// Failures   A null server is logged. What a bridge does not take waits in its unsent messages.
#pragma once

#include <czmq.h>

namespace rtls {

// Sends MSG_UPDATE_CMD to the client with this identity or, with null, to all of them. `p_win_server` is a
// WIN_SERVER_t. With null they are taken in table order, and none of them counts as updated any more; the
// line of each follows its send.
void win_server_nodes_update(void* p_win_server, zframe_t* client_id);

} // namespace rtls
