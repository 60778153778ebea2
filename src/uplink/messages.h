// messages - messages from WIN clients: envelopes come off, the message goes to its handler, the ack goes
// back.
//
// Threads    WIN server thread. The registry is shared: its lock is held for look-up and update only,
//            and what is printed, sent or handed on afterwards has been copied out. Nothing waits.
// Bytes      Little-endian as they come, big-endian as they go on (wire/messaging.h says what differs).
// Failures   A frame that is refused is dropped without an ack; a null argument is logged.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// Interprets the complete frame in client->pending_data, and changes it in place. False when it was refused.
bool process_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client);

} // namespace rtls
