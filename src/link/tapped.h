// tapped - what passes on the connections with the bridges, for the tap's subscribers.
//
// A bridge is named by its MAC once it has told it, and by its connection's number before.
// Ownership  None: what is handed in stays the caller's.
// Threads    WIN server thread.
// Blocking   Nothing waits.
// Failures   The tap's own (tap/tap_socket.h). Nothing throws.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// The bytes of one read of the client's connection; those of its messages that somebody takes have their origin.
// Somebody takes something.
void tap_read(WIN_SERVER_t& server, const WIN_CLIENT_t& client, bytes_view bytes) noexcept;

// The bytes of one write that the connection with this identity took; its client's, if it has one. Somebody takes
// them.
void tap_written(WIN_SERVER_t& server, const WIN_CLIENT_t* client, bytes_view identity,
                 bytes_view bytes) noexcept;

// What has happened to this client. Somebody takes events.
void tap_connected(WIN_SERVER_t& server, const WIN_CLIENT_t& client) noexcept;
// It has told its MAC, which was another one or none before.
void tap_named(WIN_SERVER_t& server, const WIN_CLIENT_t& client) noexcept;
// "peer", or "unwanted" by the gateway.
void tap_closed(WIN_SERVER_t& server, const WIN_CLIENT_t& client, const char* cause) noexcept;

// The number of the connection with this identity, as the tap's messages have it.
uint32_t connection_number(bytes_view identity) noexcept;

} // namespace rtls
