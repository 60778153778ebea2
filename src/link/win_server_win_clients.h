// win_server_win_clients - the WIN port's reader: connections come and go, and bytes become frames.
//
// The stream socket gives two ZeroMQ parts for each event: the identity of the connection, then data; data
// of no bytes is a connection made or lost. What a complete frame means is decided by the server's
// process_frame.
// Threads    WIN server thread.
// Blocking   The reader stays at the port for some milliseconds, unless others have news (link/port_stay.h);
//            what process_frame does may wait as it says.
// Failures   A null argument, memory that is short and a failed read are logged. Nothing throws.
#pragma once

#include "link/win_server_private.h"

#include <cstddef>
#include <cstdint>

namespace rtls {

// The port is behind when it has not been drained for so long, and so much has been handled meanwhile (time
// alone may have passed while the host was busy); or when what has been handled has cost that much of this
// thread's processor time: lines of many small messages, or of a large one, do. Debug lines are left out then.
inline constexpr int64_t behind_us = 50'000;
inline constexpr size_t behind_bytes = size_t{64} * 1024;
inline constexpr int64_t costly_us = 15'000;
inline constexpr size_t costly_bytes = size_t{16} * 1024;

// zloop reader of the WIN port: takes many events a call, and waits a little for more, so that the loop's other
// sources cost little.
// 0, or 1 when there was nothing to take; neither ends the loop.
int handle_win_clients(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

// Feeds received bytes to the client's decoder; each complete frame goes to server->process_frame.
void parse_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size);

} // namespace rtls
