// client_table - the bridges that are connected, by identity.
//
// Ownership  The table owns the records.
// Threads    Every access locks by itself. The WIN server's thread alone changes the table, so that what it
//            finds stays, and its walks need no lock; other threads copy, or visit in slices that keep it from
//            its work for less than a millisecond. The registry's lock, where both are held, is the outer one.
// Failures   Nothing throws, but the copies.
#pragma once

#include "base/czmq_ptr.h"
#include "link/win_clients.h"
#include "net/address_counts.h"

#include "base/bytes.h"
#include "core/thread_annotations.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace rtls {

// A routing identity in memory of its own. That of a stream has 5 bytes; what is longer than this is cut.
struct bridge_identity {
    bridge_identity() = default;
    explicit bridge_identity(bytes_view identity) noexcept
        : size(static_cast<uint8_t>(std::min(identity.size(), bytes.size())))
    {
        std::copy_n(identity.begin(), size, bytes.begin());
    }
    bytes_view view() const noexcept { return bytes_view{bytes}.first(size); }

    std::array<uint8_t, 31> bytes{};
    uint8_t size = 0;
};

// What other threads may know of a WIN client.
struct win_client_info {
    bridge_identity id;
    sockaddr_in addr;
    uint8_t mac_addr[mac_size];
};

class client_table {
public:
    client_table();
    ~client_table() = default;
    client_table(const client_table&) = delete;
    client_table& operator=(const client_table&) = delete;

    // False when memory was short.
    bool is_made() const RTLS_NO_THREAD_SAFETY_ANALYSIS { return m_records != nullptr; }

    // The client with this identity (upper-case hex), or nullptr.
    WIN_CLIENT_t* find(const char* key) noexcept;
    // The same by the identity itself; without key and lock where the last look-up of this client still stands.
    WIN_CLIENT_t* find(bytes_view identity) noexcept;
    // Takes the record over, and lends it. Null, and the record is gone, when the key is taken or memory
    // short.
    WIN_CLIENT_t* insert(const char* key, win_client_ptr client) noexcept;
    // Destroys the record, if there is one.
    void erase(const char* key) noexcept;
    size_t size() noexcept;
    // How many connections this address holds.
    size_t size_of_address(in_addr address) noexcept;

    // Takes over the MAC that the client's bridge gives itself; other threads see it whole.
    void set_mac_addr(WIN_CLIENT_t& client, const uint8_t* mac) noexcept;

    // Calls visit(WIN_CLIENT_t&) for each client, in table order, without the lock. The visitor may look
    // clients up and send, but erase none, and begin no other walk. WIN server's thread only.
    template <typename Visitor>
    void for_each(Visitor visit)
    {
        collect();
        for (WIN_CLIENT_t* client : m_walk)
            visit(*client);
    }

    // The client of which measure(const WIN_CLIENT_t&) is largest, the first of several; null without
    // clients. May be called in the middle of a walk.
    template <typename Measure>
    WIN_CLIENT_t* largest(Measure measure)
    {
        const mutex_guard guard{m_mutex};
        WIN_CLIENT_t* found = nullptr;
        visit_records([&](WIN_CLIENT_t& client) {
            if (!found || measure(client) > measure(*found))
                found = &client;
        });
        return found;
    }

    // Calls visit(const WIN_CLIENT_t&) for each client, in no order, under the lock: any thread, a slice at a time.
    // It may read what is said to be read by any. A client that comes meanwhile may be left out; none comes twice.
    template <typename Visitor>
    void visit_in_slices(Visitor visit)
    {
        for (size_t at = 0; visit_slice(at, visit);)
            let_others_in();
    }

    // What other threads may know, in table order, all under the lock. Throws std::bad_alloc.
    std::vector<win_client_info> copy();
    // The same in slices, in no order.
    std::vector<win_client_info> copy_in_slices();
    // Of the client with this identity; nothing when there is none. Any thread.
    std::optional<win_client_info> find_info(bytes_view identity) noexcept;

    // The table itself, for who must have it and knows that nobody else is there.
    zhashx_t* unguarded() RTLS_NO_THREAD_SAFETY_ANALYSIS { return m_records.get(); }

    // The lock itself, for tests of who takes it.
    annotated_mutex& mutex() RTLS_RETURNS_LOCK(m_mutex) { return m_mutex; }

private:
    static constexpr size_t clients_of_slice = 1024;

    // What a look-up has found, which stands for the next one until the table has changed: the order is what
    // look-ups make of it, but one that has moved nothing moves nothing the next time.
    struct found_client {
        uint64_t shape = 0; // of the table
        uint32_t number = 0;
        WIN_CLIENT_t* client = nullptr;
    };

    void collect() noexcept;
    void make_room_locked() RTLS_REQUIRES(m_mutex);
    static void let_others_in();
    void give_place(WIN_CLIENT_t& client) noexcept RTLS_REQUIRES(m_mutex);
    // The next clients from the place `at` on. False when these were the last.
    template <typename Visitor>
    bool visit_slice(size_t& at, Visitor& visit)
    {
        const mutex_guard guard{m_mutex};
        const size_t end = std::min(at + clients_of_slice, m_places.size());
        for (; at < end; ++at)
            if (const WIN_CLIENT_t* client = m_places[at])
                visit(*client);
        return at < m_places.size();
    }
    template <typename Visitor>
    void visit_records(Visitor visit) RTLS_REQUIRES(m_mutex)
    {
        for (void* item = zhashx_first(m_records.get()); item; item = zhashx_next(m_records.get()))
            visit(*static_cast<WIN_CLIENT_t*>(item));
    }

    annotated_mutex m_mutex;
    zhashx_ptr m_records RTLS_GUARDED_BY(m_mutex);
    // The walk's own list; has room for all records, so that a walk needs no memory.
    std::vector<WIN_CLIENT_t*> m_walk;
    std::vector<found_client> m_found; // by the last bits of the number; a power of two
    uint64_t m_shape = 1;              // another one with each change of the table
    address_counts m_of_address RTLS_GUARDED_BY(m_mutex);
    // The same records, each where it stays as long as it lives, so that a visit may be interrupted; and the
    // places in between that are free, for which there is always room.
    std::vector<WIN_CLIENT_t*> m_places RTLS_GUARDED_BY(m_mutex);
    std::vector<size_t> m_free_places RTLS_GUARDED_BY(m_mutex);
};

} // namespace rtls
