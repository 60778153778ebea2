// page_serving - pages of firmware images, served to nodes from the gateway's own store without asking the
// servers.
//
// Threads    WIN server thread. Takes the store's lock for the copy of one page, and the registry's for
//            the look-up of the node; neither while it sends. Nothing waits.
// Bytes      Big-endian, but for the type: layout ota_page in wire/messaging.h.
// Failures   A null argument, or memory that is short, is logged.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"

#include <cstdint>

namespace rtls {

// Answers the request for a page that came by `asking` from the node with this MAC (8 bytes): by the node's
// route, or, when it has none, to `asking`. False when the image or the page is not there: the servers are to
// be asked then. True says nothing of the delivery.
bool send_otapage_from_cache(WIN_SERVER_t* server, WIN_CLIENT_t& asking, bytes_view message,
                             const uint8_t* node_mac);

} // namespace rtls
