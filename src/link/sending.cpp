#include "link/sending.h"

#include "base/hex.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/silent_ends.h"
#include "link/tapped.h"
#include "link/unsent_messages.h"
#include "net/stream_send.h"
#include "wire/slip.h"

#include <algorithm>
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
static bool can_send(WIN_SERVER_t& server, const encoded_message& message)
{
    constexpr char function[] = "data_to_win_client";
    if (any_null(function, server.win_sock.get()))
        return false;
    if (!message.bytes().empty())
        return true;
    server.counts.bridge_messages_lost[bridge_message_loss::out_of_memory].add();
    logger_error(g_logger, str_out_of_memory, function);
    return false;
}

// The client with this identity, or null. The one whose bytes are being read is asked for most.
static WIN_CLIENT_t* find_client(WIN_SERVER_t& server, bytes_view identity)
{
    WIN_CLIENT_t* asking = server.answers.client();
    return asking && std::ranges::equal(frame_bytes(asking->id), identity) ? asking
                                                                           : server.clients.find(identity);
}

delivery data_to_bridge(WIN_SERVER_t& server, bytes_view identity, bytes_view data)
{
    const encoded_message message{data};
    if (!can_send(server, message))
        return delivery::not_made;
    WIN_CLIENT_t* client = find_client(server, identity);
    return client ? encoded_to_win_client(&server, client, message.bytes()) : delivery::no_bridge;
}

delivery data_to_all_bridges(WIN_SERVER_t& server, bytes_view data)
{
    const encoded_message message{data};
    if (!can_send(server, message))
        return delivery::not_made;
    auto best = delivery::no_bridge;
    server.clients.for_each([&](WIN_CLIENT_t& client) {
        best = std::min(best, encoded_to_win_client(&server, &client, message.bytes()));
    });
    return best;
}

bool data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, data))
        return false;
    if (!client_id)
        return data_to_all_bridges(*server, {data, size}) != delivery::not_made;
    return data_to_bridge(*server, frame_bytes(client_id), {data, size}) < delivery::no_bridge;
}

// Hands bytes to the client's connection. False, and none of them is gone, when it takes none.
static bool send_bytes(WIN_SERVER_t& server, bytes_view identity, bytes_view bytes)
{
    constexpr char function[] = "esc_data_to_win_client"; // as log filters know it
    bool sent = false;
    if (bytes.size() <= inline_part_size)
        sent = stream_send_small(server.win_sock, identity, bytes);
    else {
        message_part frame{bytes};
        if (!frame.is_made()) {
            log_call_error(function, "zframe_new");
            return false;
        }
        sent = stream_send(server.win_sock, identity, frame);
    }
    if (sent) {
        server.counts.bytes_out.add(bytes.size());
        if (server.tap.takes(tap_class::link_out)) [[unlikely]]
            tap_written(server, find_client(server, identity), identity, bytes);
    } else if (errno != EAGAIN) {
        log_call_error(function, "zframe_send");
        if (WIN_CLIENT_t* client = errno == EHOSTUNREACH ? find_client(server, identity) : nullptr)
            note_unreachable(server, *client);
    }
    return sent;
}

static void print_output(WIN_SERVER_t& server, bytes_view identity, bytes_view bytes)
{
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT", "%s [%zu] [%s]",
                  hex_text{bytes}.c_str(), bytes.size(), identity_key{identity}.c_str());
}

// The number of bytes that the connection has taken, in pieces.
static size_t send_in_pieces(WIN_SERVER_t& server, bytes_view identity, bytes_view data)
{
    size_t sent = 0;
    while (sent < data.size()) {
        const bytes_view piece = data.subspan(sent, std::min(data.size() - sent, stream_piece_limit));
        if (!send_bytes(server, identity, piece))
            break;
        sent += piece.size();
    }
    return sent;
}

static delivery cache(WIN_SERVER_t& server, WIN_CLIENT_t& client, bytes_view encoded)
{
    return data_to_cache(&server, &client, encoded.data(), encoded.size()) ? delivery::cached
                                                                           : delivery::lost;
}

// Sends a message, after those that wait, or caches it.
static delivery send_or_cache(WIN_SERVER_t& server, WIN_CLIENT_t& client, bytes_view encoded)
{
    if (!client.unsent_messages.empty()) {
        const delivery done = cache(server, client, encoded);
        offer_unsent(server, client);
        return done;
    }
    const bytes_view identity = frame_bytes(client.id); // asked of the frame once
    const size_t sent = send_in_pieces(server, identity, encoded);
    if (sent == encoded.size()) {
        server.counts.bridge_messages_sent.add();
        print_output(server, identity, encoded);
        return delivery::sent;
    }
    const delivery done = cache(server, client, encoded);
    if (done == delivery::cached) {
        client.unsent_messages.advance(sent, [](bytes_view, size_t) {});
        flush_soon(server);
    }
    return done;
}

// --- answers to the client whose bytes are being read

static void send_gathered(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    gathered_answers& answers = server.answers;
    if (answers.empty())
        return;
    if (send_bytes(server, frame_bytes(client.id), answers.bytes()))
        server.counts.bridge_messages_sent.add(answers.number());
    else {
        answers.for_each([&](bytes_view message) { cache(server, client, message); });
        flush_soon(server);
    }
    answers.clear();
}

// While messages wait for the client, none is gathered: they keep their order.
static delivery gather(WIN_SERVER_t& server, WIN_CLIENT_t& client, bytes_view encoded)
{
    if (!client.unsent_messages.empty())
        return cache(server, client, encoded); // end_answers offers it
    if (server.answers.add(encoded))
        return delivery::sent;
    send_gathered(server, client);
    if (client.unsent_messages.empty() && server.answers.add(encoded))
        return delivery::sent;
    return send_or_cache(server, client, encoded);
}

void begin_answers(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    // Who reads along sees each message leave before what it leads to.
    if (!dbg_is_heard(DBG_RAW))
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
        offer_unsent(server, *client);
}

delivery encoded_to_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, bytes_view encoded)
{
    return server->answers.is_for(*client) ? gather(*server, *client, encoded)
                                           : send_or_cache(*server, *client, encoded);
}

bool bytes_to_bridge(WIN_SERVER_t& server, bytes_view identity, bytes_view bytes)
{
    if (!send_bytes(server, identity, bytes))
        return false;
    print_output(server, identity, bytes);
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
    if (const WIN_CLIENT_t* client = server->clients.find(key.c_str()))
        lose_with_bridge(*server, *client);
    server->clients.erase(key.c_str());
}

} // namespace rtls
