// tap_watch - what the tap's own timer does: it looks who subscribes, and at what shows by looking now and then.
//
// Ownership  None: all of it is the server's.
// Threads    WIN server thread, where a function does not say otherwise.
// Blocking   Nothing waits.
// Failures   The tap's own (tap/tap_socket.h).
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// Timer, every tap_socket::look_every_ms. 0.
int watch_tap(zloop_t* loop, int timer_id, void* p_server) noexcept;

// Something that has happened on another thread, for which there is a tap. Any thread; it is published on the server's,
// soon or never. Null: there is no server.
void tap_from_elsewhere(WIN_SERVER_t* server, const tap_event& event) noexcept;
// Whether there is one: ask before the event is composed.
bool has_tap(const WIN_SERVER_t* server) noexcept;

// The server stops.
void tap_stopping(WIN_SERVER_t& server) noexcept;

} // namespace rtls
