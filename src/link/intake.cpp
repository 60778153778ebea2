#include "link/intake.h"

#include "link/win_server_win_clients.h"

namespace rtls {

static int retry(zloop_t* loop, int timer_id, void* p_server) noexcept;

// One after the other rather than a repeating one: after a stall of this thread the loop would run the missed
// ones in a row, and give up before the library had a chance.
static bool arm(WIN_SERVER_t& server)
{
    return zloop_timer(server.actor_loop, 1, 1, retry, &server) != -1;
}

static bool is_waiting(const WIN_SERVER_t& server)
{
    return server.to_handler.is_waiting() || server.to_proxy_input.is_waiting();
}

static bool resume(WIN_SERVER_t& server)
{
    if (zloop_reader(server.actor_loop, server.win_sock, handle_win_clients, &server) != 0) {
        log_call_error("intake", "zloop_reader");
        return false;
    }
    server.intake_is_paused = false;
    return true;
}

static int retry(zloop_t* /*loop*/, int /*timer_id*/, void* p_server) noexcept
{
    auto& server = *static_cast<WIN_SERVER_t*>(p_server);
    server.to_handler.retry(zsock_resolve(server.msg_handler_sock));
    server.to_proxy_input.retry(zsock_resolve(server.proxy_input_sock));
    if (!is_waiting(server) && resume(server))
        return 0;
    if (!arm(server)) {
        log_call_error("intake", "zloop_timer");
        return -1; // ends the loop, and the gateway: bridges would never be served again
    }
    return 0;
}

void intake_pause(WIN_SERVER_t& server)
{
    if (server.intake_is_paused)
        return;
    if (!arm(server)) {
        log_call_error("intake", "zloop_timer");
        server.to_handler.give_up();
        server.to_proxy_input.give_up();
        return;
    }
    server.intake_is_paused = true;
    zloop_reader_end(server.actor_loop, server.win_sock);
}

} // namespace rtls
