// page_interception - firmware pages that the servers send down to nodes, kept for other nodes.
//
// Threads    WIN server thread. The store takes its own lock; nothing waits.
// Bytes      Big-endian: layout ota_page in wire/messaging.h.
// Failures   A null argument, or a missing store, is logged.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// Keeps the page that a generic request carries. False when it carries none, not all of it, or one that the
// store refuses.
bool firmware_interception(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen);

} // namespace rtls
