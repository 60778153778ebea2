#include "server/win_server_actor.h"

#include "base/endpoints.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/signals.h"
#include "downlink/generic_requests.h"
#include "downlink/proxy_reader.h"
#include "link/win_server_win_clients.h"
#include "net/udplib.h"
#include "server/discovery.h"
#include "server/supervision.h"
#include "server/tap_watch.h"
#include "uplink/upstream.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <sched.h>

#include <new>

namespace rtls {

static constexpr char reporter[] = "win_server_actor";
static constexpr int win_send_timeout_ms = 100;
// What the WIN socket holds of one bridge: so many reads of 8 KiB at most, each of which takes 12 KiB to 18 KiB
// however little was read, and so many pieces (stream_piece_limit). Beyond that, what a bridge sends waits in
// its TCP connection, and what it does not take waits among its unsent messages, where it is counted. Nothing
// counts what is here, so it is little: thousands who flood and read nothing fill it.
static constexpr int win_receive_length = 4;
static constexpr int win_send_length = 16;
static constexpr int interthread_receive_timeout_ms = 100;

static bool made(bool ok, const char* call)
{
    if (!ok)
        log_call_error(reporter, call);
    return ok;
}

static bool open_debug_stream(WIN_SERVER_t& server)
{
    return made(zsock_connect(server.dbg_client_sock, "%s", debug_stream_endpoint) == 0, "zsock_connect");
}

static bool open_win_port(WIN_SERVER_t& server)
{
    server.win_sock.reset(zsock_new(ZMQ_STREAM));
    if (!made(server.win_sock, "zsock_new"))
        return false;
    serve_by(server.win_sock, io_thread_of_ports);
    zsock_set_sndtimeo(server.win_sock, win_send_timeout_ms);
    zsock_set_sndhwm(server.win_sock, win_send_length);
    zsock_set_rcvhwm(server.win_sock, win_receive_length);
    if (server.win_backlog > 0)
        zsock_set_backlog(server.win_sock, server.win_backlog);
    return made(zsock_bind(server.win_sock, "tcp://%s:%d", server.win_door.rules.address.c_str(),
                           server.win_port) != -1,
                "zsock_bind");
}

static bool open_discovery(WIN_SERVER_t& server)
{
    in_addr address{htonl(INADDR_ANY)};
    if (server.discovery_address != "*")
        inet_pton(AF_INET, server.discovery_address.c_str(), &address); // read_door_address has checked it
    if (udp_new_connection_at(address, server.discovery_port, &server.discovery_sock_descriptor))
        return udp_never_wait(server.discovery_sock_descriptor);
    server.discovery_sock_descriptor = -1; // whatever it holds is closed already
    return false;
}

static bool open_interthread_channel(WIN_SERVER_t& server)
{
    server.interthread_sever_sock.reset(zsock_new(ZMQ_ROUTER));
    if (!made(server.interthread_sever_sock, "zsock_new"))
        return false;
    zsock_set_rcvtimeo(server.interthread_sever_sock, interthread_receive_timeout_ms);
    return made(zsock_bind(server.interthread_sever_sock, "%s", request_channel_endpoint) != -1,
                "zsock_bind");
}

namespace {

// A link to a server upstream.
struct link_plan {
    link_watch& watch;
    int socket_type;
    const std::string& endpoint;
    io_thread thread;
    server_link keys;
    const char* call; // what operators know the failure by
};

} // namespace

static bool connect_link(const link_plan& plan, const curve_certificates& certificates, zsock_t* sock)
{
    if (!certificates.protect(sock, plan.keys))
        return false;
    plan.watch.open(sock, plan.endpoint, plan.thread);
    if (zsock_connect(sock, "%s", plan.endpoint.c_str()) == 0)
        return true;
    const int error = errno;
    plan.watch.close();
    errno = error;
    return false;
}

// The socket, connected; or null, logged.
static zsock_ptr open_link(const link_plan& plan, const curve_certificates& certificates)
{
    zsock_ptr sock{zsock_new(plan.socket_type)};
    if (made(sock && connect_link(plan, certificates, sock.get()), plan.call))
        return sock;
    return nullptr;
}

static bool open_proxy(WIN_SERVER_t& server)
{
    server.proxy_sock = open_link({server.proxy_link, ZMQ_SUB, server.proxy_full_address, io_thread_of_proxy,
                                   server_link::pub_sub_proxy, "zsock_new_sub"},
                                  server.certificates);
    if (server.proxy_sock)
        zsock_set_subscribe(server.proxy_sock, "");
    return server.proxy_sock;
}

static bool open_proxy_input(WIN_SERVER_t& server)
{
    server.proxy_input_link.count(server.to_proxy_input.unsent(), server.to_proxy_input.losses());
    server.proxy_input_sock =
        open_link({server.proxy_input_link, ZMQ_PUSH, server.proxy_full_input_address,
                   io_thread_of_proxy_input, server_link::pub_sub_proxy_input, "zsock_new_push"},
                  server.certificates);
    return server.proxy_input_sock;
}

static bool open_message_handler(WIN_SERVER_t& server)
{
    server.msg_handler_link.count(server.to_handler.unsent(), server.to_handler.losses());
    server.msg_handler_sock =
        open_link({server.msg_handler_link, ZMQ_PUSH, server.msg_handler_full_address, io_thread_of_handler,
                   server_link::message_handler, "zsock_new_push"},
                  server.certificates);
    return server.msg_handler_sock;
}

static bool open_tap(WIN_SERVER_t& server)
{
    return !server.tap.is_configured() || made(server.tap.open(server.certificates), "zmq_bind (tap)");
}

static bool make_loop(WIN_SERVER_t& server)
{
    server.actor_loop.reset(zloop_new());
    return made(server.actor_loop, "zloop_new");
}

static bool open_call_queue(WIN_SERVER_t& server)
try {
    server.calls = std::make_shared<call_queue>();
    server.calls_of_strangers.set(server.calls);
    return made(server.calls->join(server.actor_loop), "zloop_poller");
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, reporter);
    return false;
}

static constexpr bool (*open_steps[])(WIN_SERVER_t&) = {
    open_debug_stream, open_win_port,    open_discovery,       open_interthread_channel,
    open_proxy,        open_proxy_input, open_message_handler, open_tap,
    make_loop,         open_call_queue,
};

static bool open_all(WIN_SERVER_t& server)
{
    for (const auto open : open_steps)
        if (!open(server))
            return false;
    return true;
}

static bool register_discovery(WIN_SERVER_t& server)
{
    zmq_pollitem_t item{nullptr, server.discovery_sock_descriptor, ZMQ_POLLIN, 0};
    if (!made(zloop_poller(server.actor_loop, &item, handle_udp_in, &server) == 0, "zloop_poller"))
        return false;
    // Errors of single datagrams must not make the loop drop the port.
    zloop_poller_set_tolerant(server.actor_loop, &item);
    return true;
}

static bool register_readers(WIN_SERVER_t& server, zsock_t* pipe)
{
    const struct {
        zsock_t* sock;
        zloop_reader_fn* handler;
        void* argument;
    } readers[] = {
        {server.win_sock, handle_win_clients, &server},
        {pipe, zloop_end_event, nullptr},
        {server.interthread_sever_sock, handle_interthread_sever_sock, &server},
        {server.proxy_sock, handle_pub_sub_proxy, &server},
    };
    for (const auto& r : readers)
        if (!made(zloop_reader(server.actor_loop, r.sock, r.handler, r.argument) == 0, "zloop_reader"))
            return false;
    for (link_watch* link : {&server.proxy_link, &server.proxy_input_link, &server.msg_handler_link})
        if (!made(link->join(server.actor_loop), "zloop_reader"))
            return false;
    return true;
}

static bool register_timers(WIN_SERVER_t& server)
{
    server.supervised_since = zclock_mono();
    server.pulse.begin(server.supervised_since, check_client_connection_period_ms);
    constexpr struct {
        size_t period_ms;
        zloop_timer_fn* handler;
    } timers[] = {
        {check_client_connection_period_ms, check_client_connection},
        {1000, update_nodes_lifetime},
        {60000, check_proxy_connection},
        {500, check_clients_unsent_messages},
    };
    for (const auto& t : timers)
        if (!made(zloop_timer(server.actor_loop, t.period_ms, 0, t.handler, &server) != -1, "zloop_timer"))
            return false;
    return true;
}

static bool register_tap(WIN_SERVER_t& server)
{
    return !server.tap.is_configured() ||
           made(zloop_timer(server.actor_loop, tap_socket::look_every_ms, 0, watch_tap, &server) != -1,
                "zloop_timer");
}

static bool make_unsent_messages(WIN_SERVER_t& server)
{
    server.unsent_messages.reset(zlist_new());
    return made(server.unsent_messages, "unsent_messages zlist_new");
}

static bool prepare(WIN_SERVER_t& server, zsock_t* pipe)
{
    return open_all(server) && register_discovery(server) && register_readers(server, pipe) &&
           register_timers(server) && register_tap(server) && make_unsent_messages(server);
}

// While the library's thread has bytes of more bridges to read, a first one shall not have it set aside for this
// thread at once: what they say is then worked off together. A class that the site has chosen stays.
static void give_way_to_readers()
{
    const sched_param none{};
    if (sched_getscheduler(0) == SCHED_OTHER)
        sched_setscheduler(0, SCHED_BATCH, &none); // else it costs more, no less
}

void win_server_actor(zsock_t* pipe, void* p_server) noexcept
{
    block_all_signals();
    pthread_setname_np(pthread_self(), "rtls-win");
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, pipe, server)) {
        request_stop();
        if (pipe)
            zsock_signal(pipe, 0); // whoever destroys the actor waits for this
        return;
    }
    zsock_signal(pipe, 0);
    server->dbg_client_sock.reset(zsock_new(ZMQ_PUSH));
    if (!server->dbg_client_sock) {
        log_call_error(__func__, "zsock_new");
        request_stop();
        return;
    }
    const bool is_prepared = prepare(*server, pipe);
    give_way_to_readers(); // the threads that have been made until now do not
    if (is_prepared) {
        server->ready = true;
        zloop_start(server->actor_loop);
        server->pulse.end();
        logger_info(g_logger, "win_loop Ending");
    }
    destroy_actor_context(server);
}

void destroy_actor_context(WIN_SERVER_t* server)
{
    request_stop(); // without the WIN server the gateway is of no use
    if (any_null(__func__, server))
        return;
    upstream_stopping(*server);
    tap_stopping(*server);
    server->actor_loop.reset();
    server->calls_of_strangers.set(nullptr);
    if (server->calls)
        server->calls->close(); // whoever still has something to say is not heard
    server->calls.reset();
    udp_destroy(server->discovery_sock_descriptor);
    server->discovery_sock_descriptor = -1;
    server->win_sock.reset();
    server->unsent_messages.reset();
    for (link_watch* link : {&server->proxy_link, &server->proxy_input_link, &server->msg_handler_link})
        link->close();
    server->proxy_input_sock.reset();
    server->proxy_sock.reset();
    server->msg_handler_sock.reset();
    server->tap.close();
    server->dbg_client_sock.reset();
    server->interthread_sever_sock.reset();
}

} // namespace rtls
