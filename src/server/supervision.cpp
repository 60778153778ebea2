#include "server/supervision.h"

#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "base/signals.h"
#include "link/sending.h"
#include "link/silent_ends.h"
#include "link/tapped.h"
#include "link/unsent_messages.h"
#include "registry/nodes_container.h"
#include "server/win_server.h"

#include <new>
#include <utility>
#include <vector>

namespace rtls {

// A client is wanted while its own node lives and was last heard through this very connection.
static bool is_wanted(NODES_CONTAINER_t& nodes, const WIN_CLIENT_t& client)
{
    const nodes_guard guard{nodes};
    const NODE_t* node = nodes.find_by_mac(client.mac_addr);
    return node && node->lifetime != 0 && node->win_client_id &&
           zframe_eq(node->win_client_id.get(), client.id);
}

// Counts one tick of one client. True when its grace is over.
static bool has_run_out(NODES_CONTAINER_t& nodes, WIN_CLIENT_t& client)
{
    if (is_wanted(nodes, client)) {
        client.connection_delay = connection_delay_ticks;
        return false;
    }
    if (client.connection_delay == 0)
        return true;
    --client.connection_delay;
    return false;
}

// The walk erases nobody: clients are collected first, in table order.
static std::vector<const WIN_CLIENT_t*> unwanted_clients(WIN_SERVER_t& server,
                                                         NODES_CONTAINER_t& nodes) noexcept
{
    std::vector<const WIN_CLIENT_t*> unwanted;
    try {
        server.clients.for_each([&](WIN_CLIENT_t& client) {
            if (has_run_out(nodes, client))
                unwanted.push_back(&client);
        });
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, "check_client_connection"); // the rest: next tick
    }
    return unwanted;
}

static void close_unwanted(WIN_SERVER_t& server, const WIN_CLIENT_t& client)
{
    dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "Connection closed by gateway IP:%s:%d MAC:%s ID:[%s]",
              ipv4_text{client.addr}.c_str(), ntohs(client.addr.sin_port),
              colon_mac_text{client.mac_addr}.c_str(), identity_key{client.id}.c_str());
    server.counts.bridges_closed[bridge_end::unwanted].add();
    if (server.tap.takes(tap_class::event))
        tap_closed(server, client, "unwanted");
    delete_win_client(&server, client.id);
}

// Whether this is the first check in its period, counted from when the timer was set. After a stall, zloop
// runs all missed ticks in a row: they must not use up the grace of clients that had no chance to be heard
// meanwhile. A late tick, on the other hand, takes nothing from the punctual one behind it.
static bool is_new_period(WIN_SERVER_t& server, int64_t now)
{
    const int64_t period = (now - server.supervised_since) / int64_t{check_client_connection_period_ms};
    return std::exchange(server.last_client_check, period) != period;
}

int check_client_connection_at(WIN_SERVER_t* server, int64_t now)
{
    NODES_CONTAINER_t* nodes = server->nodes();
    if (!nodes) {
        logger_error(g_logger, str_null_nodes_container, "check_client_connection");
        return 1;
    }
    if (!is_new_period(*server, now))
        return 0;
    end_silent_bridges(*server);
    for (const WIN_CLIENT_t* client : unwanted_clients(*server, *nodes))
        close_unwanted(*server, *client);
    return 0;
}

int check_client_connection(zloop_t* loop, int timer_id, void* p_server) noexcept
{
    (void)timer_id;
    if (any_null(__func__, loop, p_server))
        return 1;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    const int64_t now = zclock_mono();
    server->pulse.beat(now);
    return check_client_connection_at(server, now);
}

int update_nodes_lifetime(zloop_t* loop, int timer_id, void* p_server) noexcept
{
    (void)timer_id;
    if (any_null(__func__, loop, p_server))
        return 1;
    NODES_CONTAINER_t* nodes = static_cast<WIN_SERVER_t*>(p_server)->nodes();
    if (!nodes) {
        logger_error(g_logger, str_no_nodes_container, __func__);
        return 1;
    }
    nodes->update_lifetime();
    return 0;
}

// A link that is being mended is not ours to connect again: it may just not be among the library's endpoints.
static bool reconnect_proxy(WIN_SERVER_t& server)
{
    if (server.proxy_link.is_being_mended())
        return true;
    if (zsock_disconnect(server.proxy_sock, "%s", server.proxy_full_address.c_str()) != 0) {
        log_call_error("check_proxy_connection", "zsock_disconnect");
        return false;
    }
    if (zsock_connect(server.proxy_sock, "%s", server.proxy_full_address.c_str()) != 0) {
        log_call_error("check_proxy_connection", "zsock_connect");
        return false;
    }
    return true;
}

int check_proxy_connection(zloop_t* loop, int timer_id, void* p_server) noexcept
{
    (void)timer_id;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, loop, server) || any_null(__func__, server->proxy_sock.get()))
        return 1;
    if (!server->proxy_is_silent)
        server->proxy_is_silent = true; // every message from the proxy clears it
    else if (!reconnect_proxy(*server))
        request_stop();
    return 0;
}

int check_clients_unsent_messages(zloop_t* loop, int timer_id, void* p_server) noexcept
{
    (void)timer_id;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, loop, server))
        return 1;
    unsent_messages_to_win_clients(*server);
    return 0;
}

} // namespace rtls
