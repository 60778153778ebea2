// rpl_version - the version of the routing tree that bridges are told.
//
// Threads    WIN server thread: the version is one for the process, without a lock. Nothing waits.
// Bytes      Little-endian: layout gwMsgVrPrefixResponse_t in wire/messaging.h.
// Failures   A null argument is logged; so is a timer that cannot be had, without which every request is
//            answered at once. What a bridge does not take waits in its unsent messages.
#pragma once

#include "link/win_server_private.h"

#include <cstdint>

namespace rtls {

// The next RPL version, by the lollipop counter of RFC 6550, section 7.2: 240..255, then 0..127 for
// ever.
uint8_t get_next_rpl_version(void);

// Sends prefix and next version to every bridge, and starts the timer during which further requests are
// collected.
void rpl_version_to_win_clients(WIN_SERVER_t* server);

// zloop timer, once a second after a broadcast: another one, if it was asked for meanwhile.
int rpl_timer_handler(zloop_t* loop, int timer_id, void* p_server) noexcept;

} // namespace rtls
