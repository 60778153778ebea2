// win_server_pub_sub_proxy - commands from the pub/sub proxy, decoded already: checked by their type,
// rewritten for the WIN link, and sent to the WIN client that reaches the node.
//
// Threads    WIN server thread. Takes the registry's lock for the look-up of the node, and sends and prints
//            outside it.
// Blocking   Nothing waits: an order to fetch an image (MSG_OTA_UPLOAD_FW, MSG_FW_IMAGE_AVAIL_IND) is handed
//            to the downloads (image_orders.h).
// Bytes      Commands are big-endian (srvMsg* and others in wire/messaging.h). Only the type is changed on
//            the way down, and the position for nodes that ask for it.
// Failures   A command that is refused is logged or printed, and nothing is sent.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"

#include <sys/time.h>

namespace rtls {

// Runs one command, which has come at this time of day; its type (the first two bytes, big-endian) is swapped in place. False when it is too
// short or a repeat, or when there is no registry; true says nothing of what the command itself found.
bool process_command(WIN_SERVER_t& server, bytes_span data, timeval now);

// The same by handle, for one that comes now. A null argument is logged.
bool process_data_from_pub_sub_proxy(WIN_SERVER_t* server, uint8_t* data, size_t data_size);

} // namespace rtls
