// unsent_messages - what waits for a client that does not read: appended, limited, flushed in order, freed.
//
// Bounded for each client, and for all together: where all take too much, the one that takes most loses what
// waits for it, so that a bridge which misses a moment is served whatever the others do.
// Ownership  Each client's record owns its queue.
// Threads    WIN server thread. Nothing waits.
// Bytes      Framed already, as they go out.
// Failures   What finds no room is lost, which is logged once until the queue has been empty; memory that is
//            short is logged each time. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "base/counter.h"
#include "base/memory_sum.h"
#include "link/win_counters.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace rtls {

struct WIN_SERVER_t;
struct WIN_CLIENT_t;

// The most bytes that wait for one client that does not read, and the most messages: each takes a few
// bytes of memory beside its own, which for many small ones would be a multiple of the bytes' limit.
constexpr size_t unsent_messages_limit = size_t{16} * 1024 * 1024;
constexpr size_t unsent_messages_number_limit = size_t{256} * 1024;
// The most memory that waits for all clients together.
constexpr size_t unsent_messages_total_limit = size_t{256} * 1024 * 1024;

// The most bytes that are handed to the socket at once. It counts pieces, not bytes: with pieces of this size
// and few of them, what it holds for a client that does not read is bounded, too. That is in no total, so it is
// little; there are several pieces rather than few large ones, since each short command is a piece as well. The stream's pieces need
// not be messages: small ones share a piece, and a large one is cut.
constexpr size_t stream_piece_limit = 2048;

// Messages in the order in which they were appended. They lie one behind the other in a few large blocks, so
// that many small ones take little more than their bytes, and a full queue is freed at once.
class unsent_queue {
public:
    unsent_queue() = default;
    ~unsent_queue() { clear(); }
    unsent_queue(const unsent_queue&) = delete;
    unsent_queue& operator=(const unsent_queue&) = delete;

    bool empty() const noexcept { return size() == 0; }
    size_t size() const noexcept { return m_size.value(); }     // messages; any thread may ask
    size_t bytes() const noexcept { return m_bytes.value(); }   // of all messages; so may it here
    size_t memory() const noexcept { return m_memory.bytes(); } // that the queue takes
    bool has_room(size_t size) const noexcept
    {
        return bytes() + size <= unsent_messages_limit && this->size() < unsent_messages_number_limit;
    }
    // Counts the queue's memory there, too, from now on.
    void count_in(memory_sum& sum) noexcept { m_memory.join(sum); }

    // Appends a copy, whether or not it has_room. False, with everything as it was, when memory is short.
    bool append(bytes_view message) noexcept;

    // The oldest message; there is one. Valid until the queue changes.
    bytes_view front() const noexcept;
    // Removes it.
    void pop() noexcept;
    void clear() noexcept;

    // Writes the next bytes to be sent, as many as there are and fit; returns their number.
    size_t copy_next(std::span<uint8_t> to) const noexcept;
    // So many of them have been sent: calls sent(message, messages left) for each one that is complete now,
    // and removes it.
    template <typename Visitor>
    void advance(size_t bytes, Visitor sent)
    {
        m_front_sent += bytes;
        while (!empty() && m_front_sent >= front().size()) {
            m_front_sent -= front().size();
            sent(front(), size() - 1);
            remove_front();
        }
    }

private:
    struct block {
        std::unique_ptr<uint8_t[]> memory;
        std::unique_ptr<block> next;
        size_t capacity = 0;
        size_t begin = 0; // of what is used
        size_t end = 0;
    };
    bool make_room(size_t size) noexcept;
    void remove_front() noexcept;
    void free_first() noexcept;

    std::unique_ptr<block> m_first;
    block* m_last = nullptr;
    level m_size;
    level m_bytes;
    size_t m_front_sent = 0; // bytes of the oldest message that are sent
    memory_part m_memory;
};

// Appends encoded bytes to the client's unsent messages. False when they are lost: memory is short or
// a limit of theirs is reached. When it is the limit of all clients, the one that takes most loses what waits
// for it, unless it is this one. The first loss of a client since its queue was last empty is logged.
bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size);

// The client's connection is closed: what waits for it is lost, and counted.
void lose_with_bridge(WIN_SERVER_t& server, const WIN_CLIENT_t& client) noexcept;

// Offers their unsent messages to all clients; when that is much, to the next ones in a few milliseconds.
void unsent_messages_to_win_clients(WIN_SERVER_t& server);

// Sees that unsent messages are offered again in a few milliseconds, beside the usual 500: a socket with a
// short queue has room again by then, when the client reads.
void flush_soon(WIN_SERVER_t& server);

// Sends the client's unsent messages, oldest first, until the socket takes no more, or it has got as much as
// the socket's queue may hold. Then the next attempt is after 500 ms; after a few already, while the socket
// takes some each time.
void offer_unsent(WIN_SERVER_t& server, WIN_CLIENT_t& client);

// The same by handle (p_client: a WIN_CLIENT_t), for those outside.
void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client);

} // namespace rtls
