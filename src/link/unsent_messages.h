// unsent_messages - what waits for a client that does not read: appended, limited, flushed in order.
//
// Threads    WIN server thread. Nothing waits.
// Bytes      Framed already, as they go out.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// Appends encoded bytes to the client's unsent messages. False when they are lost: memory is short or
// a limit of theirs is reached.
bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size);

// Sends the client's unsent messages, oldest first, until the socket takes no more.
void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client);

} // namespace rtls
