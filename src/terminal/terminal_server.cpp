#include "terminal/terminal_server.h"

#include "base/call_queue.h"
#include "base/common.h"
#include "base/config.h"
#include "base/connection_cut.h"
#include "base/czmq_ptr.h"
#include "base/descriptors.h"
#include "base/door.h"
#include "base/endpoints.h"
#include "base/link_watch.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "base/signals.h"
#include "base/stream_send.h"
#include "link/closed_ids.h"
#include "server/win_server.h"
#include "services.h"
#include "terminal/client.h"
#include "terminal/firmware_commands.h"
#include "terminal/reply.h"
#include "terminal/terminal_commands.h"
#include "terminal/terminal_counters.h"
#include "terminal/texts.h"
#include "wire/messaging.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

struct TERMINAL_SERVER_t {
    zactor_ptr actor;   // owner's thread; null until terminal_server_run
    in_port_t port = 0; // host order
    door entrance{"Terminal"};
    zhashx_ptr clients;               // owned TERMINAL_CLIENT_t by identity (upper-case hex)
    services* rtls_gateway = nullptr; // what the gateway hands out
    std::atomic<bool> ready{false};   // set once by the actor, polled by the owner
    zsock_ptr terminal_sock;          // the actor's, like all that follows
    zsock_ptr dbg_server_sock;
    zsock_ptr dbg_client_sock;
    zsock_ptr winserv_client_sock;
    zloop_ptr actor_loop;
    std::shared_ptr<call_queue> calls;  // by other threads; null while no actor runs
    call_queue_slot calls_of_strangers; // the same, for threads that the actor does not know

    // Connections whose record is gone although they live; see forget_client.
    std::set<std::string, std::less<>> forgotten_ids;
    connection_cuts cuts; // of those who quit and do not read
    uint64_t drained = 0; // how often no event was left in terminal_sock
    full_house house{"operators"};
    closed_id_set refused_ids; // connections that may not come in
    terminal_counters counts;  // read by any thread
    bool shows_pulse = false;
};

static constexpr int socket_timeout_ms = 100; // how long a slow terminal may hold up the thread
static constexpr char actor_name[] = "terminal_server_actor";

// A connection whose other end has vanished without a word is closed after this and three more times
// the interval.
static constexpr int keepalive_idle_s = 60;
static constexpr int keepalive_interval_s = 10;
static constexpr int keepalive_probes = 3;

namespace {

// What a reader takes before the others have their turn: the loop asks every socket for news in between,
// which costs more than a line of the debug stream does. One command or filter may take its time: then the
// turn ends with it.
class turn {
public:
    // Whether one more event may be handled.
    bool goes_on() noexcept { return ++m_events < most_events && zclock_usecs() - m_began < most_us; }

private:
    static constexpr int most_events = 64;
    static constexpr int64_t most_us = 2000;
    int m_events = 0;
    const int64_t m_began = zclock_usecs();
};

} // namespace

// --- the operators' port

// Asks the system who is at the other end of a new connection, and says so in the debug stream.
static void note_peer_address(TERMINAL_SERVER_t* server, TERMINAL_CLIENT_t& client, int fd,
                              const char* id_str)
{
    if (!read_peer_address(fd, server->port, client.client_addr)) {
        dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console,
                  "(E) Cannot get IP address for terminal client [%s]", id_str);
        return;
    }
    client.fd = fd;
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "new terminal client [%s] IP %s:%d",
              id_str, ipv4_text{client.client_addr}.c_str(), ntohs(client.client_addr.sin_port));
}

namespace {

struct sessions {
    size_t in_all;
    size_t of_address;
};

} // namespace

// How many operators are connected, and how many of them from this address. Connections without a record
// count, too; those who have left, and whose commands are still to be done, do not.
static sessions count_sessions(const TERMINAL_SERVER_t& server, in_addr address)
{
    sessions number{server.forgotten_ids.size(), 0};
    zhashx_t* clients = server.clients.get();
    for (void* item = zhashx_first(clients); item; item = zhashx_next(clients)) {
        const auto& client = *static_cast<TERMINAL_CLIENT_t*>(item);
        if (client.has_left)
            continue;
        ++number.in_all;
        if (client.client_addr.sin_addr.s_addr == address.s_addr)
            ++number.of_address;
    }
    return number;
}

// Closes the connection of who may not come in.
static bool is_refused(TERMINAL_SERVER_t* server, message_part& identity, const char* id_str)
{
    sockaddr_in peer{};
    (void)read_peer_address(identity.source_fd(), server->port, peer);
    const auto [present, of_address] = count_sessions(*server, peer.sin_addr);
    if (!server->house.refuses(identity.source_fd(), zclock_mono()) &&
        server->entrance.admits(peer.sin_addr, present, of_address, zclock_mono()))
        return false;
    message_part nothing; // closes it
    stream_send(server->terminal_sock.get(), identity.bytes(), nothing);
    server->refused_ids.remember(id_str);
    return true;
}

static void add_client(TERMINAL_SERVER_t* server, message_part& identity, const char* id_str)
{
    if (is_refused(server, identity, id_str))
        return;
    zframe_ptr id{zframe_new(identity.data(), identity.size())};
    std::unique_ptr<TERMINAL_CLIENT_t> client{new (std::nothrow) TERMINAL_CLIENT_t};
    if (!id || !client) {
        logger_error(g_logger, str_out_of_memory, "handle_terminal_clients");
        return;
    }
    client->id = std::move(id);
    client->drained_before = server->drained;
    note_peer_address(server, *client, identity.source_fd(), id_str);
    if (zhashx_insert(server->clients.get(), id_str, client.get()) != 0)
        return;
    (void)client.release(); // the table's now
    server->counts.operators_accepted.add();
}

// The address of a connection was asked for when its first event was handled, by a number that may have been
// somebody else's by then. If no event was left in the socket at any time since, the connection had not ended
// before: its end would have come. (It would not, had all the places of the queue been taken by other
// events.)
static void prove_peer(const TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client)
{
    constexpr size_t queue_size = 1000; // the library's
    if (client.is_peer_proven || client.events >= queue_size)
        return;
    client.is_peer_proven = server.drained != client.drained_before;
    ++client.events;
}

// Deletes the record of a client that sent "nothing", which is the mark of a disconnect. A chunk that
// merely starts with a NUL reads as nothing, too: then the connection lives on without a record, and
// its real disconnect must not be taken for somebody new.
static void forget_client(TERMINAL_SERVER_t* server, const char* id_str, bool is_connected)
{
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "DELETING %s\n", id_str);
    zhashx_delete(server->clients.get(), id_str);
    server->counts.operators_gone.add();
    server->cuts.forget(id_str);
    if (is_connected)
        server->forgotten_ids.emplace(id_str);
}

// Somebody without a record has connected, or has sent something all the same.
static void handle_stranger(TERMINAL_SERVER_t* server, message_part& identity, const char* id_str,
                            bool is_empty)
{
    if (server->refused_ids.forget(id_str)) { // what comes after the refusal is ignored, up to its end
        if (!is_empty)
            server->refused_ids.remember(id_str);
        return;
    }
    const bool was_forgotten = server->forgotten_ids.erase(id_str) != 0;
    if (!was_forgotten || !is_empty)
        add_client(server, identity, id_str);
}

// What an operator may type ahead while an image is fetched for him; more is nothing that a person types.
static constexpr size_t typed_ahead_limit = size_t{64} * 1024;

static void keep_for_later(TERMINAL_CLIENT_t& client, std::string text)
{
    if (text.empty()) {
        client.has_left = true;
        client.fd = -1; // the number says nothing any more
        client.is_peer_proven = false;
    } else if (client.refused_ahead > 0 || client.typed_ahead_bytes + text.size() > typed_ahead_limit) {
        ++client.refused_ahead;
        return;
    }
    client.typed_ahead_bytes += text.size();
    client.typed_ahead.push_back(std::move(text));
}

// They came behind all that was kept, his leave aside.
static void say_refused(TERMINAL_CLIENT_t& client, zsock_t* sock)
{
    if (const size_t number = std::exchange(client.refused_ahead, 0); number > 0)
        terminal_send(client, sock, text_format("Too much was typed ahead! Not done: %zu\n", number).c_str());
}

static void handle_text(TERMINAL_SERVER_t* server, TERMINAL_CLIENT_t* client, const char* id_str,
                        std::string text)
{
    const bool is_idle_leave = text.empty() && client->typed_ahead.empty(); // nothing is left to be done
    if (client->is_fetching && !is_idle_leave)
        keep_for_later(*client, std::move(text));
    else if (text.empty() || text.front() == '\0')
        forget_client(server, id_str, !text.empty() && !client->has_left);
    else
        terminal_commands_parse(server->rtls_gateway, client, server->terminal_sock.get(), text.data(),
                                server->dbg_client_sock.get());
}

// An image has been fetched for this operator, or could not be (-1): answers, and does what was typed
// meanwhile, up to the next image. Each command may be the operator's last.
static void answer_fetch(TERMINAL_SERVER_t* server, const std::string& id_str, int index)
{
    const auto find = [&] {
        return static_cast<TERMINAL_CLIENT_t*>(zhashx_lookup(server->clients.get(), id_str.c_str()));
    };
    TERMINAL_CLIENT_t* client = find();
    if (!client)
        return;
    client->is_fetching = false;
    zsock_t* sock = server->terminal_sock.get();
    terminal_send(*client, sock, fetch_answer(index).c_str());
    for (; client && !client->is_fetching; client = find()) {
        if (client->typed_ahead.empty() || client->typed_ahead.front().empty())
            say_refused(*client, sock);
        if (client->typed_ahead.empty())
            return;
        std::string text = std::move(client->typed_ahead.front());
        client->typed_ahead.pop_front();
        client->typed_ahead_bytes -= text.size();
        handle_text(server, client, id_str.c_str(), std::move(text));
    }
}

// Handles what `id` sent: its connect, its disconnect, or a command.
static void handle_chunk(TERMINAL_SERVER_t* server, message_part& identity, message_part& chunk)
{
    server->counts.chunks.add();
    server->counts.bytes_in.add(chunk.size());
    const identity_key key{identity.bytes()};
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "rcvd ID [%zu] %s", identity.size(),
              key.c_str());
    auto* client = static_cast<TERMINAL_CLIENT_t*>(zhashx_lookup(server->clients.get(), key.c_str()));
    if (!client) {
        handle_stranger(server, identity, key.c_str(), chunk.size() == 0);
        return;
    }
    prove_peer(*server, *client);
    handle_text(server, client, key.c_str(), {reinterpret_cast<const char*>(chunk.data()), chunk.size()});
}

// False when there is no event.
static bool handle_event(TERMINAL_SERVER_t* server, void* socket) noexcept
{
    message_part identity;
    message_part chunk;
    if (!identity.receive(socket) || !chunk.receive(socket))
        return false; // never between the two: they come together
    try {
        handle_chunk(server, identity, chunk);
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, "handle_terminal_clients");
    }
    return true;
}

static int handle_terminal_clients(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_server);
    void* socket = zsock_resolve(reader);
    turn turn;
    if (!handle_event(server, socket))
        return 1;
    while (turn.goes_on())
        if (!handle_event(server, socket)) {
            ++server->drained;
            break;
        }
    server->cuts.carry_out(socket, server->port);
    return 0;
}

// --- the debug stream

static line_outcome offer_line(TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client,
                               const char* line) noexcept
{
    if (client.preg && !passes(*client.preg, line))
        return line_outcome::filtered;
    return terminal_send(client, server.terminal_sock.get(), line) ? line_outcome::streamed
                                                                   : line_outcome::lost;
}

// Gives one line of the debug stream (at most 2047 bytes, so a filter has little to chew) to those who
// want it.
static void deliver_line(TERMINAL_SERVER_t* server, const char* line) noexcept
{
    if (!*line)
        return; // an empty text would close the subscribers' connections
    zhashx_t* clients = server->clients.get();
    for (void* item = zhashx_first(clients); item; item = zhashx_next(clients)) {
        auto* client = static_cast<TERMINAL_CLIENT_t*>(item);
        if (client->subscribed && !client->has_left)
            server->counts.lines[offer_line(*server, *client, line)].add();
    }
}

static int handle_dbg_message(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_server);
    turn turn;
    message_part part;
    try {
        do {
            if (!part.receive(zsock_resolve(reader)))
                break;
            server->counts.lines_taken.add();
            const std::string line{reinterpret_cast<const char*>(part.data()), part.size()};
            deliver_line(server, line.c_str());
        } while (turn.goes_on());
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
    }
    return 0;
}

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

// What the operators' connections inherit from the socket they come by.
static void prepare_operators_port(zsock_t* sock) noexcept
{
    zsock_set_tcp_keepalive(sock, 1);
    zsock_set_tcp_keepalive_idle(sock, keepalive_idle_s);
    zsock_set_tcp_keepalive_intvl(sock, keepalive_interval_s);
    zsock_set_tcp_keepalive_cnt(sock, keepalive_probes);
    zsock_set_sndtimeo(sock, socket_timeout_ms);
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
    zsock_set_rcvtimeo(server->dbg_server_sock.get(), socket_timeout_ms);

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
    if (!config_value_uint16_t_get(config, "ports/terminal", &server->port))
        return nullptr;
    try {
        if (!read_door_rules(config, "terminal", server->entrance.rules))
            return nullptr;
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
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

void terminal_server_cut_client(void* p_terminal_server, const TERMINAL_CLIENT& client, zsock_t* sock)
{
    if (any_null(__func__, p_terminal_server, sock))
        return;
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_terminal_server);
    if (client.is_peer_proven)
        server->cuts.want(identity_key{client.id.get()}.c_str(), client.fd, client.client_addr);
    server->cuts.carry_out(zsock_resolve(sock), server->port);
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

// Whether the system knows the operator's connection no more.
static bool is_gone(const TERMINAL_SERVER_t& server, const TERMINAL_CLIENT_t& client)
{
    sockaddr_in peer{};
    return !read_peer_address(client.fd, server.port, peer) ||
           peer.sin_addr.s_addr != client.client_addr.sin_addr.s_addr ||
           peer.sin_port != client.client_addr.sin_port;
}

bool terminal_server_post(TERMINAL_SERVER_t& server, std::function<void()> call) noexcept
{
    return server.calls_of_strangers.post(std::move(call));
}

std::vector<operator_info> terminal_server_copy_clients(const TERMINAL_SERVER_t& server)
{
    std::vector<operator_info> copies;
    zhashx_t* clients = server.clients.get();
    copies.reserve(zhashx_size(clients));
    for (void* item = zhashx_first(clients); item; item = zhashx_next(clients)) {
        const auto* client = static_cast<TERMINAL_CLIENT_t*>(item);
        copies.push_back(
            {client->client_addr, client->subscribed != 0, client->is_fetching, client->grep_string});
    }
    return copies;
}

bool terminal_server_fetch(void* p_terminal_server, TERMINAL_CLIENT& client, const char* url)
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_terminal_server);
    if (!server || !server->calls || !server->rtls_gateway->downloads)
        return false;
    if (is_gone(*server, client))
        return true; // nobody would see the outcome
    auto work = [server, ota = server->rtls_gateway->ota, calls = server->calls, url = std::string{url},
                 id = std::string{identity_key{client.id.get()}.c_str()}] {
        std::string reason;
        const int index = ota ? ota->download_firmware(url.c_str(), nullptr, nullptr, &reason) : -1;
        calls->post([server, id, index, text = url + ": " + reason, failed = !reason.empty()] {
            if (failed)
                dbg_print(server->dbg_client_sock.get(), DBG_DEVELOP, console, "%s", text.c_str());
            answer_fetch(server, id, index);
        });
    };
    client.is_fetching =
        server->rtls_gateway->downloads->order(std::move(work), {}, download_pool::customer::operators);
    if (!client.is_fetching)
        terminal_send(client, server->terminal_sock.get(), fetch_answer(-1).c_str());
    return true;
}

bool terminal_server_generic_req_to_win_serwer(void* p_terminal_server, uint8_t* data, size_t data_size)
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_terminal_server);
    zsock_t* sock = server ? server->winserv_client_sock.get() : nullptr; // null, too, while no actor runs
    if (any_null(__func__, sock, data))
        return false;
    constexpr int32_t command = WINSERW_SOCK_CMD_GENERIC_REQ; // host order: it stays in the process
    message_part command_part{bytes_view{reinterpret_cast<const uint8_t*>(&command), sizeof command}};
    message_part data_part{bytes_view{data, data_size}};
    if (!command_part.is_made() || !data_part.is_made()) {
        log_call_error(__func__, "zframe_new");
        return false;
    }
    void* socket = zsock_resolve(sock);
    if (command_part.send(socket, true) && data_part.send(socket))
        return true;
    server->counts.requests_lost.add();
    if (errno == EAGAIN)
        logger_error(g_logger, "Overflow winserw queue!"); // each one is a command that was not sent
    else
        log_call_error(__func__, "zframe_send");
    return false;
}

} // namespace rtls
