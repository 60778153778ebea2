// discovery - the discovery port: a bridge that does not know its gateway yet asks by UDP, mostly by
// broadcast.
//
// Threads    WIN server thread. No lock; nothing waits.
// Bytes      Big-endian: layouts discovery_echo and discovery_address in wire/messaging.h.
// Failures   What is no request is printed or ignored; an answer that cannot be sent is logged.
// Abuse      An answer is itself a valid request, so that one datagram with a forged sender could keep us
//            answering ourselves, or another gateway, for ever. What seems to come from our own port is never
//            answered, and one address gets 100 answers a second. Answers that find no room, since too many go to
//            addresses that nobody has, are not sent. Each is logged once an episode.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// zloop poller of the discovery port: answers one datagram. Always 0.
int handle_udp_in(zloop_t* loop, zmq_pollitem_t* item, void* p_server) noexcept;

} // namespace rtls
