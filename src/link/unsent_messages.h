// unsent_messages - what waits for a client that does not read: appended, limited, flushed in order, freed.
//
// Ownership  Each client's record owns its queue.
// Threads    WIN server thread. Nothing waits.
// Bytes      Framed already, as they go out.
// Failures   What finds no room is lost, which is logged once until the queue has been empty; memory that is
//            short is logged each time. Nothing throws.
#pragma once

#include "base/bytes.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace rtls {

struct WIN_SERVER_t;
struct WIN_CLIENT_t;

// The most bytes that wait for one client that does not read, and the most messages: each takes a few
// bytes of memory beside its own, which for many small ones would be a multiple of the bytes' limit.
constexpr size_t unsent_messages_limit = size_t{16} * 1024 * 1024;
constexpr size_t unsent_messages_number_limit = size_t{256} * 1024;

// Messages in the order in which they were appended. They lie one behind the other in a few large blocks, so
// that many small ones take little more than their bytes, and a full queue is freed at once.
class unsent_queue {
public:
    unsent_queue() = default;
    ~unsent_queue() { clear(); }
    unsent_queue(const unsent_queue&) = delete;
    unsent_queue& operator=(const unsent_queue&) = delete;

    bool empty() const noexcept { return m_size == 0; }
    size_t size() const noexcept { return m_size; }   // messages
    size_t bytes() const noexcept { return m_bytes; } // of all messages
    bool has_room(size_t size) const noexcept
    {
        return m_bytes + size <= unsent_messages_limit && m_size < unsent_messages_number_limit;
    }

    // Appends a copy, whether or not it has_room. False, with everything as it was, when memory is short.
    bool append(bytes_view message) noexcept;

    // The oldest message; there is one. Valid until the queue changes.
    bytes_view front() const noexcept;
    // Removes it.
    void pop() noexcept;
    void clear() noexcept;

private:
    struct block {
        std::unique_ptr<uint8_t[]> memory;
        std::unique_ptr<block> next;
        size_t capacity = 0;
        size_t begin = 0; // of what is used
        size_t end = 0;
    };
    bool make_room(size_t size) noexcept;

    std::unique_ptr<block> m_first;
    block* m_last = nullptr;
    size_t m_size = 0;
    size_t m_bytes = 0;
};

// Appends encoded bytes to the client's unsent messages. False when they are lost: memory is short or
// a limit of theirs is reached. The first loss since the queue was last empty is logged.
bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size);

// Sends the client's (p_client: a WIN_CLIENT_t) unsent messages, oldest first, until the socket takes no
// more.
void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client);

} // namespace rtls
