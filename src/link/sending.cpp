#include "link/sending.h"

#include "base/hex.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "base/stream_send.h"
#include "link/unsent_messages.h"
#include "wire/slip.h"

#include <array>
#include <cerrno>
#include <memory>
#include <new>

namespace rtls {

namespace {

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

// Whether there is a WIN port, and a message for it; log filters know who says that there is not.
static bool can_send(const WIN_SERVER_t& server, const encoded_message& message)
{
    constexpr char function[] = "data_to_win_client";
    if (any_null(function, server.win_sock.get()))
        return false;
    if (message.bytes().empty())
        logger_error(g_logger, str_out_of_memory, function);
    return !message.bytes().empty();
}

bool data_to_bridge(WIN_SERVER_t& server, bytes_view identity, bytes_view data)
{
    const encoded_message message{data};
    if (!can_send(server, message))
        return false;
    WIN_CLIENT_t* client = server.clients.find(identity_key{identity}.c_str());
    if (client)
        encoded_to_win_client(&server, client, message.bytes());
    return client != nullptr;
}

bool data_to_all_bridges(WIN_SERVER_t& server, bytes_view data)
{
    const encoded_message message{data};
    if (!can_send(server, message))
        return false;
    server.clients.for_each(
        [&](WIN_CLIENT_t& client) { encoded_to_win_client(&server, &client, message.bytes()); });
    return true;
}

bool data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, data))
        return false;
    return client_id ? data_to_bridge(*server, frame_bytes(client_id), {data, size})
                     : data_to_all_bridges(*server, {data, size});
}

void encoded_to_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, bytes_view encoded)
{
    if (!client->unsent_messages.empty()) {
        data_to_cache(server, client, encoded.data(), encoded.size());
        unsent_messages_to_win_client(server, client);
    } else if (!bytes_to_bridge(*server, frame_bytes(client->id), encoded)) {
        data_to_cache(server, client, encoded.data(), encoded.size());
    }
}

bool bytes_to_bridge(WIN_SERVER_t& server, bytes_view identity, bytes_view bytes)
{
    constexpr char function[] = "esc_data_to_win_client"; // as log filters know it
    message_part frame{bytes};
    if (!frame.is_made()) {
        log_call_error(function, "zframe_new");
        return false;
    }
    if (!stream_send(server.win_sock, identity, frame)) {
        if (errno != EAGAIN)
            log_call_error(function, "zframe_send");
        return false;
    }
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT", "%s [%zu] [%s]",
                  hex_text{bytes}.c_str(), bytes.size(), identity_key{identity}.c_str());
    return true;
}

bool esc_data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client_id, data) || any_null(__func__, server->win_sock.get()))
        return false;
    return bytes_to_bridge(*server, frame_bytes(client_id), {data, size});
}

// Closes the connection by an empty frame after its identity.
static void close_connection(WIN_SERVER_t& server, zframe_t* client_id, const identity_key& key)
{
    // Not waiting for room: a client that does not read would stall all the others.
    message_part nothing;
    if (stream_send(server.win_sock, frame_bytes(client_id), nothing))
        return;
    if (errno != EAGAIN)
        log_call_error("delete_win_client", "zframe_send");
    else if (const WIN_CLIENT_t* client = server.clients.find(key.c_str())) {
        server.cuts.want(key.c_str(), client->fd, client->addr); // its queue is full
        server.cuts.carry_out(zsock_resolve(server.win_sock), server.win_port);
    }
}

void delete_win_client(WIN_SERVER_t* server, zframe_t* client_id)
{
    if (any_null(__func__, server, client_id) || any_null(__func__, server->win_sock.get()))
        return;
    const identity_key key{client_id}; // client_id may go with the record
    close_connection(*server, client_id, key);
    server->closed_ids.remember(key.c_str());
    server->clients.erase(key.c_str());
}

} // namespace rtls
