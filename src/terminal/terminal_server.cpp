#include "terminal/terminal_server.h"

#include "base/common.h"
#include "base/config.h"
#include "base/czmq_ptr.h"
#include "base/endpoints.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "base/signals.h"
#include "server/win_server.h"
#include "services.h"
#include "terminal/client.h"
#include "terminal/reply.h"
#include "terminal/terminal_commands.h"
#include "terminal/texts.h"
#include "wire/messaging.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>

namespace rtls {

struct TERMINAL_SERVER_t {
    zactor_ptr actor;                 // owner's thread; null until terminal_server_run
    in_port_t port = 0;               // host order
    zhashx_ptr clients;               // owned TERMINAL_CLIENT_t by identity (upper-case hex)
    services* rtls_gateway = nullptr; // what the gateway hands out
    std::atomic<bool> ready{false};   // set once by the actor, polled by the owner
    zsock_ptr terminal_sock;          // the actor's, like all that follows
    zsock_ptr dbg_server_sock;
    zsock_ptr dbg_client_sock;
    zsock_ptr winserv_client_sock;
    zloop_ptr actor_loop;

    // Connections whose record is gone although they live; see forget_client.
    std::set<std::string, std::less<>> forgotten_ids;
};

static constexpr int socket_timeout_ms = 100; // how long a slow terminal may hold up the thread
static constexpr char actor_name[] = "terminal_server_actor";

// --- the operators' port

// Asks the system who is at the other end of a new connection, and says so in the debug stream.
static void note_peer_address(TERMINAL_SERVER_t* server, TERMINAL_CLIENT_t& client, int fd,
                              const char* id_str)
{
    if (!read_peer_address(fd, client.client_addr)) {
        dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console,
                  "(E) Cannot get IP address for terminal client [%s]", id_str);
        return;
    }
    client.fd = fd;
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "new terminal client [%s] IP %s:%d",
              id_str, ipv4_text{client.client_addr}.c_str(), ntohs(client.client_addr.sin_port));
}

static void add_client(TERMINAL_SERVER_t* server, message_part& identity, const char* id_str)
{
    zframe_ptr id{zframe_new(identity.data(), identity.size())};
    std::unique_ptr<TERMINAL_CLIENT_t> client{new (std::nothrow) TERMINAL_CLIENT_t};
    if (!id || !client) {
        logger_error(g_logger, str_out_of_memory, "handle_terminal_clients");
        return;
    }
    client->id = std::move(id);
    note_peer_address(server, *client, identity.source_fd(), id_str);
    if (zhashx_insert(server->clients.get(), id_str, client.get()) == 0)
        (void)client.release(); // the table's now
}

// Deletes the record of a client that sent "nothing", which is the mark of a disconnect. A chunk that
// merely starts with a NUL reads as nothing, too: then the connection lives on without a record, and
// its real disconnect must not be taken for somebody new.
static void forget_client(TERMINAL_SERVER_t* server, const char* id_str, bool is_connected)
{
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "DELETING %s\n", id_str);
    zhashx_delete(server->clients.get(), id_str);
    if (is_connected)
        server->forgotten_ids.emplace(id_str);
}

// Handles what `id` sent: its connect, its disconnect, or a command.
static void handle_chunk(TERMINAL_SERVER_t* server, message_part& identity, message_part& chunk)
{
    const identity_key key{identity.bytes()};
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "rcvd ID [%zu] %s", identity.size(),
              key.c_str());
    auto* client = static_cast<TERMINAL_CLIENT_t*>(zhashx_lookup(server->clients.get(), key.c_str()));
    if (!client) {
        const bool was_forgotten = server->forgotten_ids.erase(key.c_str()) != 0;
        if (!was_forgotten || chunk.size() != 0)
            add_client(server, identity, key.c_str());
        return;
    }
    std::string text{reinterpret_cast<const char*>(chunk.data()), chunk.size()};
    if (text.empty() || text.front() == '\0')
        forget_client(server, key.c_str(), !text.empty());
    else
        terminal_commands_parse(server->rtls_gateway, client, server->terminal_sock.get(), text.data(),
                                server->dbg_client_sock.get());
}

static int handle_terminal_clients(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_server);
    message_part identity;
    if (!identity.receive(zsock_resolve(reader)))
        return 1;
    message_part chunk;
    if (!chunk.receive(zsock_resolve(reader)))
        return 0;
    try {
        handle_chunk(server, identity, chunk);
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
    }
    return 0;
}

// --- the debug stream

static bool wants_line(const TERMINAL_CLIENT_t& client, const char* line) noexcept
{
    return client.subscribed && (!client.preg || passes(*client.preg, line));
}

// Gives one line of the debug stream (at most 2047 bytes, so a filter has little to chew) to those who
// want it. One line a turn: a subscriber that stalls costs the time-out for each line, and operators'
// commands get their turn in between.
static int handle_dbg_message(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_server);
    char* text = nullptr;
    if (zsock_recv(reader, "s", &text) != 0 || !text)
        return 0;
    const zstr_ptr line{text};
    if (!*text)
        return 0; // an empty text would close the subscribers' connections
    zhashx_t* clients = server->clients.get();
    for (void* item = zhashx_first(clients); item; item = zhashx_next(clients)) {
        const auto* client = static_cast<TERMINAL_CLIENT_t*>(item);
        if (wants_line(*client, line.get()))
            terminal_send(client->id.get(), server->terminal_sock.get(), line.get());
    }
    return 0;
}

// --- the actor

// The end of this actor is the end of the daemon: the main thread watches the interrupt flag.
static void destroy_actor_context(TERMINAL_SERVER_t* server) noexcept
{
    request_stop();
    dbg_stream_stopping();
    server->actor_loop.reset();
    server->terminal_sock.reset();
    server->dbg_server_sock.reset();
    server->dbg_client_sock.reset();
    server->winserv_client_sock.reset();
}

// A socket bound to (bind) or connected with (connect) an endpoint; or null, logged.
static zsock_ptr open_socket(int type, int (*attach)(zsock_t*, const char*, ...), const char* attach_name,
                             const std::string& endpoint)
{
    zsock_ptr sock{zsock_new(type)};
    if (!sock) {
        log_call_error(actor_name, "zsock_new");
        return nullptr;
    }
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
    zsock_set_rcvtimeo(server->dbg_server_sock.get(), socket_timeout_ms);

    server->dbg_client_sock = open_socket(ZMQ_PUSH, zsock_connect, "zsock_connect", debug_stream_endpoint);
    if (!server->dbg_client_sock)
        return false;

    server->winserv_client_sock =
        open_socket(ZMQ_PUSH, zsock_connect, "zsock_connect", request_channel_endpoint);
    if (!server->winserv_client_sock)
        return false;

    server->terminal_sock =
        open_socket(ZMQ_STREAM, zsock_bind, "zsock_bind", "tcp://*:" + std::to_string(server->port));
    if (!server->terminal_sock)
        return false;
    zsock_set_sndtimeo(server->terminal_sock.get(), socket_timeout_ms);
    return true;
}

static bool create_loop(TERMINAL_SERVER_t* server, zsock_t* pipe)
{
    server->actor_loop.reset(zloop_new());
    if (!server->actor_loop) {
        log_call_error(actor_name, "zloop_new");
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
    return true;
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
    if (!config_value_uint16_t_get(config, "ports/terminal", &server->port))
        return nullptr;
    server->clients.reset(zhashx_new());
    if (!server->clients) {
        log_call_error(__func__, "zhashx_new");
        return nullptr;
    }
    zhashx_set_destructor(server->clients.get(), terminal_client_item_destructor);
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
    return static_cast<TERMINAL_SERVER_t*>(p_terminal_server)->clients.get();
}

bool terminal_server_is_ready(void* p_terminal_server)
{
    if (any_null(__func__, p_terminal_server))
        return false;
    return static_cast<TERMINAL_SERVER_t*>(p_terminal_server)->ready;
}

// Sends the frame and gives it up either way; errno tells why it was not sent.
static bool send_request_frame(zframe_ptr frame, zsock_t* sock, int flags)
{
    zframe_t* raw = frame.release();
    const bool is_sent = zframe_send(&raw, sock, flags) == 0;
    const int error = errno;
    zframe_destroy(&raw); // null when sent
    errno = error;
    return is_sent;
}

bool terminal_server_generic_req_to_win_serwer(void* p_terminal_server, uint8_t* data, size_t data_size)
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_terminal_server);
    zsock_t* sock = server ? server->winserv_client_sock.get() : nullptr; // null, too, while no actor runs
    if (any_null(__func__, sock, data))
        return false;
    constexpr int32_t command = WINSERW_SOCK_CMD_GENERIC_REQ; // host order: it stays in the process
    zframe_ptr command_frame{zframe_new(&command, sizeof command)};
    zframe_ptr data_frame{zframe_new(data, data_size)};
    if (!command_frame || !data_frame) {
        log_call_error(__func__, "zframe_new");
        return false;
    }
    if (send_request_frame(std::move(command_frame), sock, ZFRAME_MORE | ZFRAME_DONTWAIT) &&
        send_request_frame(std::move(data_frame), sock, ZFRAME_DONTWAIT))
        return true;
    if (errno == EAGAIN)
        logger_error(g_logger, "Overflow winserw queue!"); // each one is a command that was not sent
    else
        log_call_error(__func__, "zframe_send");
    return false;
}

} // namespace rtls
