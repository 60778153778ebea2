// sending - frames on their way down to the bridges.
//
// What a connection does not take at once waits in the client's unsent messages.
// Threads    WIN server thread. Nothing waits.
// Bytes      Messages go as they are given; START, END and ESC are put around and into them (wire/slip.h).
// Failures   A null argument, memory that is short and what the socket refuses are logged; a socket that is
//            full is no failure. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"

namespace rtls {

// Frames one message and sends or caches it, to the client with this identity.
delivery data_to_bridge(WIN_SERVER_t& server, bytes_view identity, bytes_view data);

// The same to every client; the best that any of them got.
delivery data_to_all_bridges(WIN_SERVER_t& server, bytes_view data);

// Either of them, by handle: null means every client. False when the client does not exist, or memory is
// short.
bool data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size);

// Sends an encoded message to this client, after those that wait, or caches it. Does not look anything up
// in the table, so that a walk over it may deliver to each client.
delivery encoded_to_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, bytes_view encoded);

// Between these two, what is sent to this client gathers, and leaves in few pieces: the bytes and their order
// are those of messages sent one by one. Other clients' messages leave at once. The client stays meanwhile.
void begin_answers(WIN_SERVER_t& server, WIN_CLIENT_t& client);
void end_answers(WIN_SERVER_t& server);

// Sends bytes as they are to one client, without caching. False when they could not be sent.
bool bytes_to_bridge(WIN_SERVER_t& server, bytes_view identity, bytes_view bytes);

// The same by handle.
bool esc_data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size);

// Closes one client's connection and forgets the client, and what waits for it. `client_id` may be the
// client's own.
void delete_win_client(WIN_SERVER_t* server, zframe_t* client_id);

} // namespace rtls
