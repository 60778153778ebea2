// win_server_pub_sub_proxy - commands from the pub/sub proxy, decoded already: checked by their type,
// rewritten for the WIN link, and sent to the WIN client that reaches the node.
//
// Threads    WIN server thread.
// Failures   A command that is refused is logged or printed, and nothing is sent.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// Runs one command; its type (the first two bytes, big-endian) is swapped in place. False when it is too
// short or a repeat, or when there is no registry.
bool process_data_from_pub_sub_proxy(WIN_SERVER_t* server, uint8_t* data, size_t data_size);

bool spam_filter(void* p_nodes, const uint8_t* data, size_t data_size, timeval now);
bool firmware_interception(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen);
int handle_pub_sub_proxy(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

} // namespace rtls
