// silent_ends - bridges whose connection has ended without a notice of it.
//
// The stream socket tells the end of a connection by an event. When the queue of the connection's events is
// just full at its end, which takes a pause of this thread, the library drops that event, and the record would
// stay until its node expires. There are two other signs of an end:
//   - the library knows no way to the connection (EHOSTUNREACH): it forgets the way when the last event has been
//     read, so that none can follow;
//   - the system knows the connection no more: its number is closed, or somebody else's. The library queues all
//     events of a connection before it closes the number, so that none can follow once nothing waits.
//
// A number that was asked for late may have been another connection's by then, with the same address in two
// records. At most one of them has it: the one that came last, by the identity, which the library counts up.
//
// Threads    WIN server thread.
// Blocking   Nothing waits.
// Failures   What is not proven has not ended. Nothing throws.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// The end of a connection by its peer: said, counted, and the record is gone.
void end_by_peer(WIN_SERVER_t& server, const WIN_CLIENT_t& client);

// The library knows no way to the client: its end follows, but not before the work at hand is done.
void note_unreachable(WIN_SERVER_t& server, WIN_CLIENT_t& client);

// A new record has this descriptor's number: whoever had it before has it no more.
void note_number(WIN_SERVER_t& server, WIN_CLIENT_t& client) noexcept;

// Ends those that have ended, among the next few of which nothing has been heard for two calls. Call it once a
// second.
void end_silent_bridges(WIN_SERVER_t& server);

} // namespace rtls
