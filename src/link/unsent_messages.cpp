#include "link/unsent_messages.h"

#include "base/hex.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/win_server_private.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace rtls {

// Blocks double from the first to the last of these: a bridge that misses a moment takes little memory, one
// that has stopped reading few blocks.
static constexpr size_t smallest_block = 1024;
static constexpr size_t largest_block = size_t{64} * 1024;

// In front of each message: its size, in host order.
using message_size = uint32_t;

// --- the queue

bool unsent_queue::make_room(size_t size) noexcept
{
    if (m_last && m_last->capacity - m_last->end >= size)
        return true;
    const size_t usual = m_last ? std::min(2 * m_last->capacity, largest_block) : smallest_block;
    std::unique_ptr<block> added{new (std::nothrow) block};
    if (!added)
        return false;
    added->capacity = std::max(usual, size);
    added->memory.reset(new (std::nothrow) uint8_t[added->capacity]);
    if (!added->memory)
        return false;
    block* last = std::exchange(m_last, added.get());
    (last ? last->next : m_first) = std::move(added);
    return true;
}

bool unsent_queue::append(bytes_view message) noexcept
{
    if (!make_room(sizeof(message_size) + message.size()))
        return false;
    const auto size = static_cast<message_size>(message.size());
    uint8_t* to = m_last->memory.get() + m_last->end;
    std::memcpy(to, &size, sizeof size);
    if (!message.empty())
        std::memcpy(to + sizeof size, message.data(), message.size());
    m_last->end += sizeof size + message.size();
    ++m_size;
    m_bytes += message.size();
    return true;
}

bytes_view unsent_queue::front() const noexcept
{
    const uint8_t* from = m_first->memory.get() + m_first->begin;
    message_size size = 0;
    std::memcpy(&size, from, sizeof size);
    return {from + sizeof size, size};
}

void unsent_queue::pop() noexcept
{
    const size_t size = front().size();
    m_first->begin += sizeof(message_size) + size;
    --m_size;
    m_bytes -= size;
    if (m_first->begin < m_first->end)
        return;
    m_first = std::move(m_first->next);
    if (!m_first)
        m_last = nullptr;
}

void unsent_queue::clear() noexcept
{
    while (m_first) // not left to the destructor of the first, which would go as deep as there are blocks
        m_first = std::move(m_first->next);
    m_last = nullptr;
    m_size = m_bytes = 0;
}

// --- of one client

static bool note_loss(WIN_CLIENT_t& client)
{
    if (!client.unsent_overflow)
        logger_error(g_logger,
                     "%s: win client [%s] IP %s:%d does not read: %zu bytes wait for it, messages are lost!",
                     "data_to_cache", identity_key{client.id}.c_str(), ipv4_text{client.addr}.c_str(),
                     ntohs(client.addr.sin_port), client.unsent_messages.bytes());
    client.unsent_overflow = true;
    return false;
}

bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client, data))
        return false;
    unsent_queue& queue = client->unsent_messages;
    if (!queue.has_room(size))
        return note_loss(*client);
    if (!queue.append({data, size})) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server->dbg_client_sock, DBG_RAW, "SLIP_RAW_CACHE", "%s [%zu] cache size: %zu",
                  hex_text{{data, size}}.c_str(), size, queue.size());
    return true;
}

// Offers the oldest message to the client's connection. The identity is what fails for a client that does not
// read, and it does not wait: any number of stalled bridges costs the others nothing.
static bool send_front(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    // Made before the identity is sent: an identity without data would leave the socket out of step.
    message_part data{client.unsent_messages.front()};
    message_part id{bytes_view{zframe_data(client.id), zframe_size(client.id)}};
    void* socket = zsock_resolve(server.win_sock);
    // Neither part waits: a socket that took the identity has room for what belongs to it.
    return data.is_made() && id.is_made() && id.send(socket, true) && data.send(socket);
}

static void print_flushed(WIN_SERVER_t& server, const WIN_CLIENT_t& client, bytes_view message, size_t left)
{
    dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT_FROM_CACHE",
              "%s [%zu] cache size: %zu %s:%d [%s]", hex_text{message}.c_str(), message.size(), left,
              ipv4_text{client.addr}.c_str(), ntohs(client.addr.sin_port), identity_key{client.id}.c_str());
}

// Sends the oldest message, or leaves it where it is and returns false.
static bool flush_one(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    unsent_queue& queue = client.unsent_messages;
    if (!send_front(server, client)) {
        if (errno != EAGAIN)
            log_call_error("unsent_messages_to_win_client", "zframe_send");
        return false;
    }
    if (dbg_is_wanted(DBG_RAW))
        print_flushed(server, client, queue.front(), queue.size() - 1);
    queue.pop();
    return true;
}

void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client)
{
    auto* client = static_cast<WIN_CLIENT_t*>(p_client);
    if (any_null(__func__, server, client) || any_null(__func__, server->win_sock.get()))
        return;
    while (!client->unsent_messages.empty())
        if (!flush_one(*server, *client))
            return;
    client->unsent_overflow = false; // the next overflow is a new one
}

} // namespace rtls
