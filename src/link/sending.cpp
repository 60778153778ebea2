#include "link/sending.h"

#include "base/hex.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/unsent_messages.h"
#include "wire/slip.h"

#include <algorithm>
#include <array>
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

// The client with this identity, or null. The one whose bytes are being read is asked for most.
static WIN_CLIENT_t* find_client(WIN_SERVER_t& server, zframe_t* id)
{
    WIN_CLIENT_t* asking = server.answers.client();
    return asking && asking->id == id ? asking : server.clients.find(identity_key{id}.c_str());
}

bool data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, data) || any_null(__func__, server->win_sock.get()))
        return false;
    const encoded_message message{{data, size}};
    if (message.bytes().empty()) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    if (client_id) {
        WIN_CLIENT_t* client = find_client(*server, client_id);
        if (!client)
            return false;
        encoded_to_win_client(server, client, message.bytes());
        return true;
    }
    server->clients.for_each(
        [&](WIN_CLIENT_t& client) { encoded_to_win_client(server, &client, message.bytes()); });
    return true;
}

// Hands bytes to the client's connection. False, and none of them is gone, when it takes none.
static bool send_bytes(WIN_SERVER_t& server, zframe_t* client_id, bytes_view data)
{
    static constexpr char reporter[] = "esc_data_to_win_client";
    // Made before the identity is sent: an identity without data would leave the socket out of step, and
    // the next client's identity would go to this one as data.
    message_part frame{data};
    if (!frame.is_made()) {
        log_call_error(reporter, "zframe_new");
        return false;
    }
    // The identity is what fails when the peer does not read; the data after it is then not offered.
    zframe_t* id = client_id;
    if (zframe_send(&id, server.win_sock, ZFRAME_MORE | ZFRAME_REUSE | ZFRAME_DONTWAIT) != 0 ||
        !frame.send(zsock_resolve(server.win_sock))) {
        if (errno != EAGAIN)
            log_call_error(reporter, "zframe_send");
        return false;
    }
    return true;
}

static void print_output(WIN_SERVER_t& server, zframe_t* client_id, bytes_view data)
{
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT", "%s [%zu] [%s]", hex_text{data}.c_str(),
                  data.size(), identity_key{client_id}.c_str());
}

// The number of bytes that the connection has taken, in pieces.
static size_t send_in_pieces(WIN_SERVER_t& server, zframe_t* client_id, bytes_view data)
{
    size_t sent = 0;
    while (sent < data.size()) {
        const bytes_view piece = data.subspan(sent, std::min(data.size() - sent, stream_piece_limit));
        if (!send_bytes(server, client_id, piece))
            break;
        sent += piece.size();
    }
    return sent;
}

// Sends a message, after those that wait, or caches it.
static void send_or_cache(WIN_SERVER_t& server, WIN_CLIENT_t& client, bytes_view encoded)
{
    if (!client.unsent_messages.empty()) {
        data_to_cache(&server, &client, encoded.data(), encoded.size());
        unsent_messages_to_win_client(&server, &client);
        return;
    }
    const size_t sent = send_in_pieces(server, client.id, encoded);
    if (sent == encoded.size())
        print_output(server, client.id, encoded);
    else if (data_to_cache(&server, &client, encoded.data(), encoded.size())) {
        client.unsent_messages.advance(sent, [](bytes_view, size_t) {});
        flush_soon(server);
    }
}

// --- answers to the client whose bytes are being read

static void send_gathered(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    gathered_answers& answers = server.answers;
    if (answers.empty())
        return;
    if (!send_bytes(server, client.id, answers.bytes())) {
        answers.for_each(
            [&](bytes_view message) { data_to_cache(&server, &client, message.data(), message.size()); });
        flush_soon(server);
    }
    answers.clear();
}

// While messages wait for the client, none is gathered: they keep their order.
static void gather(WIN_SERVER_t& server, WIN_CLIENT_t& client, bytes_view encoded)
{
    if (!client.unsent_messages.empty())
        data_to_cache(&server, &client, encoded.data(), encoded.size()); // end_answers offers it
    else if (!server.answers.add(encoded)) {
        send_gathered(server, client);
        if (!client.unsent_messages.empty() || !server.answers.add(encoded))
            send_or_cache(server, client, encoded);
    }
}

void begin_answers(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    // Who reads along sees each message leave before what it leads to.
    if (!dbg_is_wanted(DBG_RAW))
        server.answers.begin(&client);
}

void end_answers(WIN_SERVER_t& server)
{
    WIN_CLIENT_t* client = server.answers.client();
    if (!client)
        return;
    const bool messages_wait = !client->unsent_messages.empty();
    send_gathered(server, *client);
    server.answers.begin(nullptr);
    if (messages_wait)
        unsent_messages_to_win_client(&server, client);
}

void encoded_to_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, bytes_view encoded)
{
    if (server->answers.is_for(*client))
        gather(*server, *client, encoded);
    else
        send_or_cache(*server, *client, encoded);
}

bool esc_data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client_id, data) || any_null(__func__, server->win_sock.get()))
        return false;
    if (!send_bytes(*server, client_id, {data, size}))
        return false;
    print_output(*server, client_id, {data, size});
    return true;
}

// Closes the connection by an empty frame after its identity. Without the identity the empty frame
// would itself be taken for one, so it is not sent then.
static void close_connection(WIN_SERVER_t& server, zframe_t* client_id, const WIN_CLIENT_t* client)
{
    // Not waiting for room: a client that does not read would stall all the others.
    if (zframe_send(&client_id, server.win_sock, ZFRAME_MORE | ZFRAME_REUSE | ZFRAME_DONTWAIT) == 0)
        zstr_sendm(server.win_sock, "");
    else if (errno != EAGAIN)
        log_call_error("delete_win_client", "zframe_send");
    else if (client) // its queue is full, so that the stream socket cannot close it
        cut_connection(client->fd, client->addr);
}

void delete_win_client(WIN_SERVER_t* server, zframe_t* client_id)
{
    if (any_null(__func__, server, client_id) || any_null(__func__, server->win_sock.get()))
        return;
    const identity_key key{client_id}; // client_id may go with the record
    close_connection(*server, client_id, server->clients.find(key.c_str()));
    server->closed_ids.remember(key.c_str());
    server->clients.erase(key.c_str());
}

} // namespace rtls
