// win_server_win_clients - the WIN port: connections come and go, frames come in and go out.
//
// The stream socket gives two ZeroMQ frames for each event: the identity of the connection, then data;
// data of no bytes is a connection made or lost. What a complete message means is decided in
// win_client_messages.
#include "link/win_server_private.h"

#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/rpl_version.h"
#include "wire/messaging.h"
#include "wire/slip.h"

#include <sys/socket.h>
#include <time.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <new>

namespace rtls {

namespace {

// The most events one call of the reader takes: many for the intake, few enough for the other sockets.
constexpr int events_per_call = 64;
constexpr size_t rpl_timer_ms = 1000;

// While events come this close behind one another, the reader lets some more gather before it takes them,
// for up to a millisecond a call. Waking up for each report, and having the loop ask every socket for
// news in between, would cost several times what the report itself does.
constexpr int64_t busy_gap_us = 300;
constexpr long gather_us = 100;
constexpr int64_t busy_call_us = 1000;

using win_client_ptr = std::unique_ptr<void, destroyed_by<win_client_destroy>>;

void print_new_client(WIN_SERVER_t& server, const sockaddr_in* addr, const identity_key& key)
{
    if (addr)
        dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "new win client [%s] IP %s:%d", key.c_str(),
                  ipv4_text{*addr}.c_str(), ntohs(addr->sin_port));
    else
        dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "(E) Cannot get IP address for win client [%s]",
                  key.c_str());
}

// A record for a new connection, ready for data; or null. Its address is zero when the peer is gone
// already: the record is needed all the same, for the disconnection that will follow.
win_client_ptr make_client(WIN_SERVER_t& server, message_part& identity, const identity_key& key)
{
    zframe_ptr id{zframe_new(identity.bytes().data(), identity.bytes().size())};
    win_client_ptr owner{id ? win_client_new(id.get()) : nullptr};
    if (!owner)
        return nullptr;
    auto* client = static_cast<WIN_CLIENT_t*>(owner.get());
    client->fd = identity.source_fd();
    const bool known = read_peer_address(client->fd, client->addr);
    print_new_client(server, known ? &client->addr : nullptr, key);

    client->pending_data = static_cast<uint8_t*>(std::malloc(pending_data_step));
    if (!client->pending_data) {
        logger_error(g_logger, str_out_of_memory, "handle_win_clients");
        return nullptr;
    }
    client->pending_buffsize = pending_data_step;
    return owner;
}

void on_connect(WIN_SERVER_t& server, message_part& identity, const identity_key& key)
{
    win_client_ptr owner = make_client(server, identity, key);
    if (!owner)
        return;
    auto* client = static_cast<WIN_CLIENT_t*>(owner.get());
    {
        const std::lock_guard guard{server.clients_mutex};
        if (zhashx_insert(server.clients, key.c_str(), client) != 0)
            return;
    }
    (void)owner.release(); // the table's from here on
    // Bridges wait for this before they speak; it stands outside of any frame on purpose.
    static constexpr uint8_t greeting[] = {'s', 'y', 'n', 'c', '\n'};
    esc_data_to_win_client(&server, client->id, greeting, sizeof greeting);
}

void on_disconnect(WIN_SERVER_t& server, const WIN_CLIENT_t& client, const identity_key& key)
{
    dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "Connection closed by peer IP:%s:%d MAC:%s ID:[%s]",
              ipv4_text{client.addr}.c_str(), ntohs(client.addr.sin_port),
              colon_mac_text{client.mac_addr}.c_str(), key.c_str());
    const std::lock_guard guard{server.clients_mutex};
    zhashx_delete(server.clients, key.c_str());
}

void on_data(WIN_SERVER_t& server, WIN_CLIENT_t& client, const identity_key& key, bytes_view data)
{
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_INPUT", "%s [%zu] %s:%d [%s]",
                  hex_text{data}.c_str(), data.size(), ipv4_text{client.addr}.c_str(),
                  ntohs(client.addr.sin_port), key.c_str());
    parse_data_from_win_client(&server, &client, data.data(), data.size());
}

void handle_event(WIN_SERVER_t& server, message_part& identity, message_part& data)
{
    const identity_key key{identity.bytes()};
    WIN_CLIENT_t* client = win_server_find_client(&server, key.c_str());
    const bytes_view bytes = data.bytes();
    if (client && !bytes.empty())
        on_data(server, *client, key, bytes);
    else if (client)
        on_disconnect(server, *client, key);
    else if (!bytes.empty())
        dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "(E) rsvd from non existed client %s",
                  key.c_str());
    else if (!server.closed_ids.forget(key.c_str())) // a late notice of our own closing is no connection
        on_connect(server, identity, key);
}

void deliver_frame(void* p_server, WIN_CLIENT_t& client)
{
    process_data_from_win_client(static_cast<WIN_SERVER_t*>(p_server), &client);
}

// Room for one encoded message: on the stack for nearly all of them, else allocated.
class encoded_message {
public:
    explicit encoded_message(bytes_view message)
    {
        uint8_t* room = m_small.data();
        if (slip_encoded_limit(message.size()) > m_small.size()) {
            m_large.reset(new (std::nothrow) uint8_t[slip_encoded_limit(message.size())]);
            room = m_large.get();
        }
        if (room)
            m_bytes = {room, slip_encode(message, room)};
    }
    encoded_message(const encoded_message&) = delete;
    encoded_message& operator=(const encoded_message&) = delete;
    // None when memory was short: an encoded message has two bytes at least.
    bytes_view bytes() const { return m_bytes; }

private:
    std::array<uint8_t, 1024> m_small; // not cleared: slip_encode writes what is read
    std::unique_ptr<uint8_t[]> m_large;
    bytes_view m_bytes;
};

} // namespace

// Lets events gather on a drained stream socket, if the last ones came in quick succession. False when it
// is the turn of the loop's other sources.
static bool let_more_gather(WIN_SERVER_t& server, int64_t call_began)
{
    const int64_t now = zclock_usecs();
    const bool is_busy = call_began - server.last_win_event < busy_gap_us;
    server.last_win_event = now;
    if (!is_busy || now - call_began >= busy_call_us)
        return false;
    const timespec pause{.tv_sec = 0, .tv_nsec = gather_us * 1000};
    return nanosleep(&pause, nullptr) == 0;
}

// The identity of one more event, at hand or about to come.
static bool receive_another(message_part& identity, WIN_SERVER_t& server, void* socket, int64_t call_began)
{
    return identity.receive(socket) || (let_more_gather(server, call_began) && identity.receive(socket));
}

int handle_win_clients(zloop_t* loop, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, loop, reader, server))
        return 1;
    void* socket = zsock_resolve(reader);
    const int64_t call_began = zclock_usecs();
    message_part identity;
    message_part data;
    if (!identity.receive(socket)) {
        logger_error(g_logger, "%s: zframe_recv returned NULL!", __func__);
        return 1;
    }
    for (int events = 1;; ++events) {
        if (!data.receive(socket)) {
            log_call_error(__func__, "zframe_recv");
            return 1;
        }
        handle_event(*server, identity, data);
        if (events == events_per_call || !receive_another(identity, *server, socket, call_began))
            return 0;
    }
}

void parse_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client, data))
        return;
    win_client_decode(*client, {data, size}, deliver_frame, server);
}

bool data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, data) || any_null(__func__, server->win_sock))
        return false;
    const encoded_message message{{data, size}};
    if (message.bytes().empty()) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    if (client_id) {
        WIN_CLIENT_t* client = win_server_find_client(server, identity_key{client_id}.c_str());
        if (!client)
            return false;
        encoded_to_win_client(server, client, message.bytes());
        return true;
    }
    for (void* client = zhashx_first(server->clients); client; client = zhashx_next(server->clients))
        encoded_to_win_client(server, static_cast<WIN_CLIENT_t*>(client), message.bytes());
    return true;
}

void encoded_to_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, bytes_view encoded)
{
    if (zlist_size(client->unsent_messages) > 0) {
        data_to_cache(server, client, encoded.data(), encoded.size());
        unsent_messages_to_win_client(server, client);
    } else if (!esc_data_to_win_client(server, client->id, encoded.data(), encoded.size())) {
        data_to_cache(server, client, encoded.data(), encoded.size());
    }
}

bool esc_data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client_id, data) || any_null(__func__, server->win_sock))
        return false;
    // Made before the identity is sent: an identity without data would leave the socket out of step, and
    // the next client's identity would go to this one as data.
    message_part frame{bytes_view{data, size}};
    if (!frame.is_made()) {
        log_call_error(__func__, "zframe_new");
        return false;
    }
    // The identity is what fails when the peer does not read; the data after it is then not offered.
    zframe_t* id = client_id;
    if (zframe_send(&id, server->win_sock, ZFRAME_MORE | ZFRAME_REUSE | ZFRAME_DONTWAIT) != 0 ||
        !frame.send(zsock_resolve(server->win_sock))) {
        if (errno != EAGAIN)
            log_call_error(__func__, "zframe_send");
        return false;
    }
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server->dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT", "%s [%zu] [%s]",
                  hex_text{{data, size}}.c_str(), size, identity_key{client_id}.c_str());
    return true;
}

// Whether one more message of `size` bytes may wait for this client. Reports the first message lost since the
// cache was last empty.
static bool cache_has_room(WIN_CLIENT_t& client, size_t size)
{
    if (client.unsent_bytes + size <= unsent_messages_limit &&
        zlist_size(client.unsent_messages) < unsent_messages_number_limit)
        return true;
    if (!client.unsent_overflow)
        logger_error(g_logger,
                     "%s: win client [%s] IP %s:%d does not read: %zu bytes wait for it, messages are lost!",
                     "data_to_cache", identity_key{client.id}.c_str(), ipv4_text{client.addr}.c_str(),
                     ntohs(client.addr.sin_port), client.unsent_bytes);
    client.unsent_overflow = true;
    return false;
}

bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client, data))
        return false;
    if (!cache_has_room(*client, size))
        return false;
    zframe_ptr frame{zframe_new(data, size)};
    if (!frame) {
        log_call_error(__func__, "zframe_new");
        return false;
    }
    if (zlist_append(client->unsent_messages, frame.get()) != 0) {
        log_call_error(__func__, "zlist_append");
        return false;
    }
    (void)frame.release(); // the list's from here on
    client->unsent_bytes += size;
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server->dbg_client_sock, DBG_RAW, "SLIP_RAW_CACHE", "%s [%zu] cache size: %zu",
                  hex_text{{data, size}}.c_str(), size, zlist_size(client->unsent_messages));
    return true;
}

void rpl_version_to_win_clients(WIN_SERVER_t* server)
{
    if (any_null(__func__, server) || any_null(__func__, server->actor_loop))
        return;
    std::array<uint8_t, gwMsgVrPrefixResponse_t::size> message{};
    store_le16(message, gwMsgVrPrefixResponse_t::msgType, MSG_VR_PANID_RESP);
    store_le16(message, gwMsgVrPrefixResponse_t::rplPrefix, server->rpl_prefix);
    message[gwMsgVrPrefixResponse_t::rpl_version] = get_next_rpl_version();
    data_to_win_client(server, nullptr, message.data(), message.size());

    server->unprocessed_MSG_PANID_REQ = false;
    // Without the timer the next request is answered at once: better than never.
    server->rpl_timer_is_active =
        zloop_timer(server->actor_loop, rpl_timer_ms, 1, rpl_timer_handler, server) != -1;
    if (!server->rpl_timer_is_active)
        log_call_error(__func__, "zloop_timer");
}

int rpl_timer_handler(zloop_t* loop, int timer_id, void* p_server) noexcept
{
    (void)timer_id;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, loop, server))
        return 1;
    if (server->unprocessed_MSG_PANID_REQ)
        rpl_version_to_win_clients(server);
    else
        server->rpl_timer_is_active = false;
    return 0;
}

} // namespace rtls
