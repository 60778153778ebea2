#include "terminal/operators_port.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/peer.h"
#include "net/stream_send.h"
#include "terminal/client.h"
#include "terminal/image_fetch.h"
#include "terminal/reply.h"
#include "terminal/terminal_commands.h"
#include "terminal/terminal_server_private.h"
#include "terminal/texts.h"

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace rtls {

// An idle connection whose other end has vanished without a word is closed after this and three more times the
// interval. (One with something unsent is never asked so: TERMINAL_CLIENT_t::silence is for that.)
static constexpr int keepalive_idle_s = 60;
static constexpr int keepalive_interval_s = 10;
static constexpr int keepalive_probes = 3;

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
    (void)client.silence.begin(fd);
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
    server.clients.for_each([&](const TERMINAL_CLIENT_t& client) {
        if (client.has_left)
            return;
        ++number.in_all;
        if (client.client_addr.sin_addr.s_addr == address.s_addr)
            ++number.of_address;
    });
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

// The address of a connection was asked for when its first event was handled, by a number that may have been
// somebody else's by then. If no event was left in the socket at any time since, the connection had not ended
// before: its end would have come. (It would not, had all the places of the queue been taken by other
// events.)
static bool can_be_proven(const TERMINAL_CLIENT_t& client)
{
    constexpr size_t queue_size = 1000; // the library's
    return client.events < queue_size;
}

static bool is_proven(const TERMINAL_SERVER_t& server, const TERMINAL_CLIENT_t& client)
{
    return client.is_peer_proven || (can_be_proven(client) && server.drained != client.drained_before);
}

static void prove_peer(const TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client)
{
    if (client.is_peer_proven || !can_be_proven(client))
        return;
    client.is_peer_proven = is_proven(server, client);
    ++client.events;
}

// --- those who have vanished

static int handle_silence_check(zloop_t* loop, int timer_id, void* p_server) noexcept;

// One after the other while somebody is connected: after a stall, missed ones would come in a row.
static void plan_silence_check(TERMINAL_SERVER_t& server)
{
    if (server.silence_check_is_planned || !server.actor_loop)
        return;
    server.silence_check_is_planned = zloop_timer(server.actor_loop.get(), silence_judge::sample_every_ms, 1,
                                                  handle_silence_check, &server) != -1;
}

// Their end comes as that of any other connection, once it is cut.
static void cut_if_vanished(TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client, int64_t now)
{
    if (client.fd < 0 || !client.silence.has_vanished(now) || !is_proven(server, client))
        return;
    const identity_key key{client.id.get()};
    dbg_print(server.dbg_client_sock.get(), DBG_TERMINAL, console, "terminal client [%s] has vanished",
              key.c_str());
    server.cuts.want(key.c_str(), client.fd, client.client_addr);
}

static int handle_silence_check(zloop_t* /*loop*/, int /*timer_id*/, void* p_server) noexcept
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_server);
    server->silence_check_is_planned = false;
    const int64_t now = zclock_mono();
    server->clients.for_each([=](TERMINAL_CLIENT_t& client) { cut_if_vanished(*server, client, now); });
    server->cuts.carry_out(zsock_resolve(server->terminal_sock.get()), server->port);
    if (server->clients.size() > 0)
        plan_silence_check(*server);
    return 0;
}

// --- events

static void add_client(TERMINAL_SERVER_t* server, message_part& identity, const char* id_str)
{
    if (is_refused(server, identity, id_str))
        return;
    zframe_ptr id{zframe_new(identity.data(), identity.size())};
    std::unique_ptr<TERMINAL_CLIENT_t> client{new (std::nothrow) TERMINAL_CLIENT_t};
    if (!id || !client) {
        server->counts.operators_not_made.add();
        logger_error(g_logger, str_out_of_memory, "handle_terminal_clients");
        return;
    }
    client->id = std::move(id);
    client->drained_before = server->drained;
    note_peer_address(server, *client, identity.source_fd(), id_str);
    const bool is_taken = server->clients.insert(id_str, std::move(client));
    (is_taken ? server->counts.operators_accepted : server->counts.operators_not_made).add();
    if (is_taken)
        plan_silence_check(*server);
}

// Deletes the record of a client that sent "nothing", which is the mark of a disconnect. A chunk that
// merely starts with a NUL reads as nothing, too: then the connection lives on without a record, and
// its real disconnect must not be taken for somebody new.
static void forget_client(TERMINAL_SERVER_t* server, const char* id_str, bool is_connected)
{
    dbg_print(server->dbg_client_sock.get(), DBG_TERMINAL, console, "DELETING %s\n", id_str);
    server->clients.erase(id_str);
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
        run_typed({*server->rtls_gateway, *server, client, server->terminal_sock.get(),
                   server->dbg_client_sock.get()},
                  text.data());
}

// What memory is too short for is left out; what follows it is still done.
template <typename Step>
static void take_step(const char* function, Step&& step) noexcept
{
    try {
        step();
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, function);
    }
}

static void handle_typed_ahead(TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client, const char* id_str)
{
    std::string text = std::move(client.typed_ahead.front());
    client.typed_ahead.pop_front();
    client.typed_ahead_bytes -= text.size();
    handle_text(&server, &client, id_str, std::move(text));
}

// Each command may be the operator's last.
void answer_fetch(TERMINAL_SERVER_t& server, const std::string& id_str, int index)
{
    const auto find = [&] { return server.clients.find(id_str.c_str()); };
    TERMINAL_CLIENT_t* client = find();
    if (!client)
        return;
    client->is_fetching = false;
    zsock_t* sock = server.terminal_sock.get();
    take_step("answer_fetch", [&] { terminal_send(*client, sock, fetch_answer(index).c_str()); });
    for (; client && !client->is_fetching; client = find()) {
        if (client->typed_ahead.empty() || client->typed_ahead.front().empty())
            take_step("answer_fetch", [&] { say_refused(*client, sock); });
        if (client->typed_ahead.empty())
            return;
        take_step("answer_fetch", [&] { handle_typed_ahead(server, *client, id_str.c_str()); });
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
    TERMINAL_CLIENT_t* client = server->clients.find(key.c_str());
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
    take_step("handle_terminal_clients", [&] { handle_chunk(server, identity, chunk); });
    return true;
}

int handle_terminal_clients(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
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

// What the operators' connections inherit from the socket they come by.
void prepare_operators_port(zsock_t* sock) noexcept
{
    zsock_set_tcp_keepalive(sock, 1);
    zsock_set_tcp_keepalive_idle(sock, keepalive_idle_s);
    zsock_set_tcp_keepalive_intvl(sock, keepalive_interval_s);
    zsock_set_tcp_keepalive_cnt(sock, keepalive_probes);
    zsock_set_sndtimeo(sock, terminal_timeout_ms);
}

} // namespace rtls
