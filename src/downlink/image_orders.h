// image_orders - the proxy's orders to fetch a firmware image: the one for the store, and the announced one.
//
// Images are fetched on the threads of the download pool; what follows, with its lines in the debug stream,
// happens on the WIN server's thread again. Orders for the store go side by side. Announcements are followed
// one after the other: the image of the last one is the current one in the end.
// Threads    WIN server thread.
// Blocking   Nothing waits, except while no actor runs (tests): then the caller does.
// Failures   Printed; what an announcement cannot fetch changes nothing.
#pragma once

#include "link/win_server_private.h"

#include <cstdint>

namespace rtls {

// Fetches an image for the store, which must have this version and CRC.
void fetch_for_store(WIN_SERVER_t& server, const char* url, uint32_t git_ver, uint32_t crc32);

// Makes the image of `url` the current one and tells the bridges. If it contradicts the announced CRC (0:
// none) there is no current image afterwards: the one before is out of date in any case. `printed_crc`: the
// announced one as it is in memory, as operators compare it.
void fetch_announced(WIN_SERVER_t& server, const char* url, uint32_t announced_crc, uint32_t printed_crc);

} // namespace rtls
