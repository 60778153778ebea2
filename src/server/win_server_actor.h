// win_server_actor - the actor's life: sockets, loop, tear-down, each in a fixed order.
//
// Threads    The actor's own. All that it opens is opened, used and closed here.
// Blocking   The loop sleeps until there is work.
// Failures   A socket, reader or timer that cannot be had is logged and ends the actor, which ends the
//            gateway. Nothing throws.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// The actor's body (zactor_fn): opens every socket, runs the loop, tears all down. Its end ends the gateway.
void win_server_actor(zsock_t* pipe, void* p_server) noexcept;

// Raises the interrupt flag and closes all that the actor opened.
void destroy_actor_context(WIN_SERVER_t* server);

} // namespace rtls
