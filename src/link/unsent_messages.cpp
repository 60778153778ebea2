#include "link/unsent_messages.h"

#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"

namespace rtls {

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

// Offers one frame to the client's connection. The identity is what fails for a client that does not
// read, and it does not wait: any number of stalled bridges costs the others nothing.
static bool send_unsent(WIN_SERVER_t& server, WIN_CLIENT_t& client, zframe_ptr& frame)
{
    zframe_t* id = client.id;
    if (zframe_send(&id, server.win_sock, ZFRAME_MORE | ZFRAME_REUSE | ZFRAME_DONTWAIT) != 0)
        return false;
    zframe_t* raw = frame.release();
    const bool sent = zframe_send(&raw, server.win_sock, 0) == 0;
    frame.reset(raw); // null when sent
    return sent;
}

// Sends the oldest frame, or puts it back and returns false.
static bool flush_one(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    zframe_ptr frame{static_cast<zframe_t*>(zlist_pop(client.unsent_messages))};
    if (!frame)
        return true;
    const size_t size = zframe_size(frame.get());
    const bool print = dbg_is_wanted(DBG_RAW);
    // Sending consumes the frame, so what the line shows is taken before.
    const hex_text hex{{zframe_data(frame.get()), print ? size : 0}};
    if (!send_unsent(server, client, frame)) {
        if (errno != EAGAIN)
            log_call_error("unsent_messages_to_win_client", "zframe_send");
        zlist_push(client.unsent_messages, frame.release());
        return false;
    }
    client.unsent_bytes -= size;
    if (print)
        dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT_FROM_CACHE",
                  "%s [%zu] cache size: %zu %s:%d [%s]", hex.c_str(), size,
                  zlist_size(client.unsent_messages), ipv4_text{client.addr}.c_str(),
                  ntohs(client.addr.sin_port), identity_key{client.id}.c_str());
    return true;
}

void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client)
{
    auto* client = static_cast<WIN_CLIENT_t*>(p_client);
    if (any_null(__func__, server, client) || any_null(__func__, server->win_sock))
        return;
    while (zlist_size(client->unsent_messages) > 0)
        if (!flush_one(*server, *client))
            return;
    client->unsent_overflow = false; // the next overflow is a new one
}

} // namespace rtls
