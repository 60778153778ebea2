// update_announcement - tells bridges that there is a new firmware image for them.
#pragma once

#include <czmq.h>

namespace rtls {

// Sends MSG_UPDATE_CMD to the client with this identity or, with null, to all of them. `p_win_server` is a
// WIN_SERVER_t. WIN server thread only; nothing waits.
void win_server_nodes_update(void* p_win_server, zframe_t* client_id);

} // namespace rtls
