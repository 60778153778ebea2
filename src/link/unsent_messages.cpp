#include "link/unsent_messages.h"

#include "base/hex.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/silent_ends.h"
#include "link/tapped.h"
#include "link/win_server_private.h"
#include "net/stream_send.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace rtls {

// Blocks double from the first to the last of these: a bridge that misses a moment takes little memory, one
// that has stopped reading few blocks.
static constexpr size_t smallest_block = 1024;
static constexpr size_t largest_block = size_t{64} * 1024;

// After this the socket is offered again what it has refused: its queue is short, and empty by then unless
// the client does not read.
static constexpr size_t flush_soon_ms = 5;

// The most pieces that one client gets at a time: what an empty queue of the socket takes. And all together: a
// piece may hold hundreds of messages, and the bridges that send wait meanwhile.
static constexpr size_t pieces_of_one = 16;
static constexpr size_t pieces_of_all = 256;

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
    m_memory.set(m_memory.bytes() + sizeof(block) + added->capacity);
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
    m_size.set(m_size.value() + 1);
    m_bytes.set(m_bytes.value() + message.size());
    return true;
}

bytes_view unsent_queue::front() const noexcept
{
    const uint8_t* from = m_first->memory.get() + m_first->begin;
    message_size size = 0;
    std::memcpy(&size, from, sizeof size);
    return {from + sizeof size, size};
}

void unsent_queue::free_first() noexcept
{
    m_memory.set(m_memory.bytes() - sizeof(block) - m_first->capacity);
    m_first = std::move(m_first->next);
    if (!m_first)
        m_last = nullptr;
}

void unsent_queue::remove_front() noexcept
{
    const size_t size = front().size();
    m_first->begin += sizeof(message_size) + size;
    m_size.set(m_size.value() - 1);
    m_bytes.set(m_bytes.value() - size);
    if (m_first->begin == m_first->end)
        free_first();
}

void unsent_queue::pop() noexcept
{
    m_front_sent = 0;
    remove_front();
}

void unsent_queue::clear() noexcept
{
    while (m_first) // not left to the destructor of the first, which would go as deep as there are blocks
        free_first();
    m_size.set(0);
    m_bytes.set(0);
    m_front_sent = 0;
}

size_t unsent_queue::copy_next(std::span<uint8_t> to) const noexcept
{
    size_t copied = 0;
    size_t skip = m_front_sent;
    for (const block* from = m_first.get(); from; from = from->next.get())
        for (size_t at = from->begin; at < from->end;) {
            message_size size = 0;
            std::memcpy(&size, from->memory.get() + at, sizeof size);
            const size_t part = std::min(size - skip, to.size() - copied);
            if (part > 0)
                std::memcpy(to.data() + copied, from->memory.get() + at + sizeof size + skip, part);
            copied += part;
            if (copied == to.size())
                return copied;
            at += sizeof size + size;
            skip = 0;
        }
    return copied;
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

// Makes room for one more message of this client among those of all. False when it is the one that takes most
// itself. A message that is sent in part is lost with the others: where its frame ends, the receiver's
// decoder sees the next one begin, and gives it up.
static bool make_room(WIN_SERVER_t& server, const WIN_CLIENT_t& client, size_t size)
{
    if (server.unsent_total.bytes() + size <= unsent_messages_total_limit)
        return true;
    const int64_t now = zclock_mono();
    const size_t own = client.unsent_messages.memory();
    // Looked a moment ago: a flood's messages do not walk the table each. Who holds less than the one that was
    // refused then is not the largest.
    if (server.no_room_at == now && own >= server.refused_holding)
        return false;
    while (server.unsent_total.bytes() + size > unsent_messages_total_limit) {
        WIN_CLIENT_t* largest =
            server.clients.largest([](const WIN_CLIENT_t& c) { return c.unsent_messages.memory(); });
        if (!largest || largest->unsent_messages.memory() <= own) {
            server.no_room_at = now;
            server.refused_holding = own;
            return false;
        }
        note_loss(*largest);
        server.counts.bridge_messages_lost[bridge_message_loss::given_up].add(
            largest->unsent_messages.size());
        largest->unsent_messages.clear();
    }
    return true;
}

bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client, data))
        return false;
    unsent_queue& queue = client->unsent_messages;
    auto& lost = server->counts.bridge_messages_lost;
    if (!queue.has_room(size) || !make_room(*server, *client, size)) {
        lost[bridge_message_loss::queue_full].add();
        return note_loss(*client);
    }
    if (!queue.append({data, size})) {
        lost[bridge_message_loss::out_of_memory].add();
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    server->counts.bridge_messages_cached.add();
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server->dbg_client_sock, DBG_RAW, "SLIP_RAW_CACHE", "%s [%zu] cache size: %zu",
                  hex_text{{data, size}}.c_str(), size, queue.size());
    return true;
}

void lose_with_bridge(WIN_SERVER_t& server, const WIN_CLIENT_t& client) noexcept
{
    server.counts.bridge_messages_lost[bridge_message_loss::bridge_closed].add(client.unsent_messages.size());
    if (is_within_frame(client))
        server.counts.decoder.lost[frame_loss::unfinished].add();
}

static void print_flushed(WIN_SERVER_t& server, const WIN_CLIENT_t& client, bytes_view message, size_t left)
{
    dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_OUTPUT_FROM_CACHE",
              "%s [%zu] cache size: %zu %s:%d [%s]", hex_text{message}.c_str(), message.size(), left,
              ipv4_text{client.addr}.c_str(), ntohs(client.addr.sin_port), identity_key{client.id}.c_str());
}

// Offers the next piece to the client's connection; it is gone from the queue, or the result is false. The
// identity is what fails for a client that does not read, and it does not wait: any number of stalled bridges
// costs the others nothing.
static bool send_piece(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    unsent_queue& queue = client.unsent_messages;
    std::array<uint8_t, stream_piece_limit> room; // not cleared: what is sent is written
    const size_t size = queue.copy_next(room);
    message_part data{bytes_view{room.data(), size}};
    if (!data.is_made() || !stream_send(server.win_sock, frame_bytes(client.id), data))
        return false;
    server.counts.bytes_out.add(size);
    if (server.tap.takes(tap_class::link_out)) [[unlikely]]
        tap_written(server, &client, frame_bytes(client.id), {room.data(), size});
    queue.advance(size, [&](bytes_view message, size_t left) {
        server.counts.bridge_messages_flushed.add();
        if (dbg_is_wanted(DBG_RAW))
            print_flushed(server, client, message, left);
    });
    return true;
}

// Sends up to `most` pieces; returns how many. What is left then has been refused by the socket, or waits for
// the next time, which is soon while the socket takes some each time.
static size_t flush(WIN_SERVER_t& server, WIN_CLIENT_t& client, size_t most)
{
    constexpr char logged_as[] = "unsent_messages_to_win_client"; // which log filters know
    if (any_null(logged_as, server.win_sock.get()))
        return 0;
    size_t sent = 0;
    for (; !client.unsent_messages.empty() && sent < most; ++sent)
        if (!send_piece(server, client)) {
            if (errno != EAGAIN)
                log_call_error(logged_as, "zframe_send");
            if (errno == EHOSTUNREACH)
                note_unreachable(server, client);
            break;
        }
    if (client.unsent_messages.empty())
        client.unsent_overflow = false; // the next overflow is a new one
    else if (sent > 0)
        flush_soon(server);
    return sent;
}

void offer_unsent(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    (void)flush(server, client, pieces_of_one);
}

void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client)
{
    if (!any_null(__func__, server, p_client))
        offer_unsent(*server, *static_cast<WIN_CLIENT_t*>(p_client));
}

void unsent_messages_to_win_clients(WIN_SERVER_t& server)
{
    size_t position = 0;
    size_t pieces = 0;
    size_t next = 0; // where the pieces ran out
    server.clients.for_each([&](WIN_CLIENT_t& client) {
        if (position++ < server.next_flush || client.unsent_messages.empty())
            return;
        if (pieces < pieces_of_all)
            pieces += flush(server, client, std::min(pieces_of_one, pieces_of_all - pieces));
        else if (next == 0)
            next = position - 1;
    });
    if (server.next_flush > 0 || next > 0)
        flush_soon(server); // those behind, or again from the beginning
    server.next_flush = next;
}

static int flush_timer_handler(zloop_t* /*loop*/, int /*timer_id*/, void* p_server) noexcept
{
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    server->flush_timer_is_active = false;
    unsent_messages_to_win_clients(*server);
    return 0;
}

void flush_soon(WIN_SERVER_t& server)
{
    if (!server.flush_timer_is_active && server.actor_loop)
        server.flush_timer_is_active =
            zloop_timer(server.actor_loop, flush_soon_ms, 1, flush_timer_handler, &server) != -1;
}

} // namespace rtls
