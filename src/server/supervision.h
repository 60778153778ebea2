// supervision - the WIN server's periodic work: bridges nobody speaks through are let go, nodes age, a silent
// proxy is reconnected, and what could not be sent is tried again.
//
// Threads    WIN server thread. All but the last are zloop timers, which return 0, or 1 where something is
//            missing; neither ends the loop.
// Failures   A null argument and memory that is short are logged, and the rest is left to the next tick.
//            Nothing throws.
#pragma once

#include "link/win_server_private.h"

namespace rtls {

// The first one is the actor's pulse, too.
constexpr size_t check_client_connection_period_ms = 1000;
int check_client_connection(zloop_t* loop, int timer_id, void* p_server) noexcept;
int update_nodes_lifetime(zloop_t* loop, int timer_id, void* p_server) noexcept;
int check_proxy_connection(zloop_t* loop, int timer_id, void* p_server) noexcept;
int check_clients_unsent_messages(zloop_t* loop, int timer_id, void* p_server) noexcept;

// check_client_connection at the time `now` (zclock_mono).
int check_client_connection_at(WIN_SERVER_t* server, int64_t now);

} // namespace rtls
