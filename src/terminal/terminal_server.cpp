#include "terminal/terminal_server.h"

#include "base/common.h"
#include "base/config.h"
#include "base/czmq_ptr.h"
#include "base/endpoints.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/signals.h"
#include "net/link_watch.h"
#include "services.h"
#include "terminal/client.h"
#include "terminal/debug_lines.h"
#include "terminal/operators_port.h"
#include "terminal/terminal_server_private.h"
#include "terminal/win_requests.h"

#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

static constexpr char actor_name[] = "terminal_server_actor";

// --- the actor

static constexpr size_t pulse_ms = 1000;

static int handle_pulse(zloop_t* /*loop*/, int /*timer_id*/, void* p_server) noexcept
{
    static_cast<TERMINAL_SERVER_t*>(p_server)->counts.pulse.beat(zclock_mono());
    return 0;
}

static bool set_pulse(TERMINAL_SERVER_t* server)
{
    if (!server->shows_pulse)
        return true;
    server->counts.pulse.begin(zclock_mono(), pulse_ms);
    if (zloop_timer(server->actor_loop.get(), pulse_ms, 0, handle_pulse, server) != -1)
        return true;
    log_call_error(actor_name, "zloop_timer");
    return false;
}

// The end of this actor is the end of the daemon: the main thread watches the interrupt flag.
static void destroy_actor_context(TERMINAL_SERVER_t* server) noexcept
{
    request_stop();
    dbg_stream_stopping();
    server->actor_loop.reset();
    server->calls_of_strangers.set(nullptr);
    if (server->calls)
        server->calls->close(); // whoever still has something to say is not heard
    server->calls.reset();
    server->terminal_sock.reset();
    server->dbg_server_sock.reset();
    server->dbg_client_sock.reset();
    server->winserv_client_sock.reset();
}

// A socket bound to (bind) or connected with (connect) an endpoint; or null, logged.
static zsock_ptr open_socket(int type, int (*attach)(zsock_t*, const char*, ...), const char* attach_name,
                             const std::string& endpoint, void (*prepare)(zsock_t*) = nullptr)
{
    zsock_ptr sock{zsock_new(type)};
    if (!sock) {
        log_call_error(actor_name, "zsock_new");
        return nullptr;
    }
    serve_by(sock.get(), io_thread_of_ports);
    if (prepare)
        prepare(sock.get());
    if (attach(sock.get(), "%s", endpoint.c_str()) < 0) { // a bind to TCP answers with the port
        log_call_error(actor_name, attach_name);
        return nullptr;
    }
    return sock;
}

// The collecting end of the debug stream comes first: it is there before anybody, us included, connects.
static bool open_sockets(TERMINAL_SERVER_t* server)
{
    server->dbg_server_sock = open_socket(ZMQ_PULL, zsock_bind, "zsock_bind", debug_stream_endpoint);
    if (!server->dbg_server_sock)
        return false;
    zsock_set_rcvtimeo(server->dbg_server_sock.get(), terminal_timeout_ms);

    server->dbg_client_sock = open_socket(ZMQ_PUSH, zsock_connect, "zsock_connect", debug_stream_endpoint);
    if (!server->dbg_client_sock)
        return false;

    server->winserv_client_sock =
        open_socket(ZMQ_PUSH, zsock_connect, "zsock_connect", request_channel_endpoint);
    if (!server->winserv_client_sock)
        return false;

    server->terminal_sock =
        open_socket(ZMQ_STREAM, zsock_bind, "zsock_bind",
                    "tcp://" + server->entrance.rules.address + ':' + std::to_string(server->port),
                    prepare_operators_port);
    return server->terminal_sock != nullptr;
}

static bool create_loop(TERMINAL_SERVER_t* server, zsock_t* pipe)
{
    server->actor_loop.reset(zloop_new());
    if (!server->actor_loop) {
        log_call_error(actor_name, "zloop_new");
        return false;
    }
    server->calls.reset(new (std::nothrow) call_queue);
    if (!server->calls) {
        logger_error(g_logger, str_out_of_memory, actor_name);
        return false;
    }
    const struct {
        zsock_t* sock;
        zloop_reader_fn* handler;
    } readers[] = {
        {server->terminal_sock.get(), handle_terminal_clients},
        {server->dbg_server_sock.get(), handle_dbg_message},
        {pipe, zloop_end_event},
    };
    for (const auto& r : readers)
        if (zloop_reader(server->actor_loop.get(), r.sock, r.handler, server) != 0) {
            log_call_error(actor_name, "zloop_reader");
            return false;
        }
    if (!server->calls->join(server->actor_loop.get())) {
        log_call_error(actor_name, "zloop_poller");
        return false;
    }
    server->calls_of_strangers.set(server->calls);
    return set_pulse(server);
}

// Signals its creator at once, who never waits for the binds; `ready` tells when they are done.
static void terminal_server_actor(zsock_t* pipe, void* p_terminal_server) noexcept
{
    block_all_signals(); // a signal handled on this thread would end the loop
    pthread_setname_np(pthread_self(), "rtls-terminal");
    if (pipe)
        zsock_signal(pipe, 0); // also on failure: the creator waits for it
    if (any_null(__func__, pipe, p_terminal_server)) {
        request_stop();
        return;
    }
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_terminal_server);
    if (open_sockets(server) && create_loop(server, pipe)) {
        server->ready = true;
        zloop_start(server->actor_loop.get());
        server->counts.pulse.end();
        logger_info(g_logger, "terminal actor_loop Ending");
    }
    destroy_actor_context(server);
}

// --- by handle

void* terminal_server_new(zconfig_t* config, void* p_rtls_gateway)
{
    if (any_null(__func__, config, p_rtls_gateway))
        return nullptr;
    terminal_server_ptr server{new (std::nothrow) TERMINAL_SERVER_t};
    if (!server) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    server->rtls_gateway = static_cast<services*>(p_rtls_gateway);
    server->fetch_ended = answer_fetch;
    if (!config_value_uint16_t_get(config, "ports/terminal", &server->port))
        return nullptr;
    try {
        if (!read_door_rules(config, "terminal", server->entrance.rules))
            return nullptr;
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    if (!server->clients.is_made()) {
        log_call_error(__func__, "zhashx_new");
        return nullptr;
    }
    return server.release();
}

bool terminal_server_run(void* p_terminal_server)
{
    if (any_null(__func__, p_terminal_server))
        return false;
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_terminal_server);
    if (server->actor) {
        logger_error(g_logger, "%s: trying to run the running terminal server: %d, %s", __func__, errno,
                     zmq_strerror(errno));
        return false;
    }
    server->actor.reset(zactor_new(terminal_server_actor, server));
    if (!server->actor) {
        log_call_error(__func__, "zactor_new");
        return false;
    }
    return true;
}

void terminal_server_destroy(void** pp_terminal_server)
{
    if (any_null(__func__, pp_terminal_server))
        return;
    auto* server = static_cast<TERMINAL_SERVER_t*>(*pp_terminal_server);
    if (!server)
        return;
    server->actor.reset(); // first: its thread uses all the rest
    delete server;
    *pp_terminal_server = nullptr;
}

zhashx_t* terminal_server_get_clients(void* p_terminal_server)
{
    if (any_null(__func__, p_terminal_server))
        return nullptr;
    return static_cast<TERMINAL_SERVER_t*>(p_terminal_server)->clients.records();
}

void terminal_server_show_pulse(TERMINAL_SERVER_t& server) noexcept
{
    server.shows_pulse = true;
}

terminal_figures terminal_server_figures(const TERMINAL_SERVER_t& server) noexcept
{
    return {server.counts, server.entrance, server.house};
}

bool terminal_server_is_ready(void* p_terminal_server)
{
    if (any_null(__func__, p_terminal_server))
        return false;
    return static_cast<TERMINAL_SERVER_t*>(p_terminal_server)->ready;
}

bool terminal_server_post(TERMINAL_SERVER_t& server, std::function<void()> call) noexcept
{
    return server.calls_of_strangers.post(std::move(call));
}

std::vector<operator_info> terminal_server_copy_clients(const TERMINAL_SERVER_t& server)
{
    std::vector<operator_info> copies;
    copies.reserve(server.clients.size());
    server.clients.for_each([&](const TERMINAL_CLIENT_t& client) {
        copies.push_back(
            {client.client_addr, client.subscribed != 0, client.is_fetching, client.grep_string});
    });
    return copies;
}

bool terminal_server_generic_req_to_win_serwer(void* p_terminal_server, uint8_t* data, size_t data_size)
{
    if (any_null(__func__, p_terminal_server, data))
        return false;
    return ask_win_server(*static_cast<TERMINAL_SERVER_t*>(p_terminal_server), {data, data_size});
}

} // namespace rtls
