#include "link/client_table.h"

#include "base/peer.h"

#include <cassert>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

namespace rtls {

// What the library gives a connection: a zero and a number, one more each time.
static constexpr size_t stream_identity_size = 5;

static constexpr size_t least_found = 64;

static thread_local uint64_t hashed_keys = 0;

// CZMQ's own hash of a text, which the order of the records is made by.
static size_t hash_of_key(const void* key)
{
    ++hashed_keys;
    size_t hash = 0;
    for (const char* at = static_cast<const char*>(key); *at != '\0'; ++at)
        hash = 33 * hash ^ static_cast<size_t>(*at);
    return hash;
}

client_table::client_table() : m_records(zhashx_new())
{
    if (!m_records)
        return;
    zhashx_set_destructor(m_records.get(), win_client_destroy);
    zhashx_set_key_hasher(m_records.get(), hash_of_key);
}

WIN_CLIENT_t* client_table::find(const char* key) noexcept
{
    // A look-up that meets a long chain moves the whole table to new buckets, by the hash of every key.
    const mutex_guard guard{m_mutex};
    const uint64_t hashed_before = hashed_keys;
    auto* client = static_cast<WIN_CLIENT_t*>(zhashx_lookup(m_records.get(), key));
    if (hashed_keys - hashed_before > 1)
        ++m_shape;
    return client;
}

WIN_CLIENT_t* client_table::find(bytes_view identity) noexcept
{
    if (m_found.empty() || identity.size() != stream_identity_size || identity[0] != 0)
        return find(identity_key{identity}.c_str());
    const uint32_t number = load_be32(identity, 1);
    found_client& found = m_found[number & (m_found.size() - 1)];
    if (found.shape == m_shape && found.number == number)
        return found.client;
    WIN_CLIENT_t* client = find(identity_key{identity}.c_str());
    if (client)
        found = {m_shape, number, client};
    return client;
}

// For one record more. Throws std::bad_alloc.
void client_table::make_room_locked()
{
    if (m_walk.capacity() <= zhashx_size(m_records.get()))
        m_walk.reserve(2 * m_walk.capacity() + 8);
    if (m_found.size() <= 2 * zhashx_size(m_records.get()))
        m_found.assign(std::max(least_found, 2 * m_found.size()), {});
}

WIN_CLIENT_t* client_table::insert(const char* key, win_client_ptr client) noexcept
{
    ++m_shape;
    const mutex_guard guard{m_mutex};
    try {
        make_room_locked();
        m_of_address.add(client->addr.sin_addr);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (zhashx_insert(m_records.get(), key, client.get()) == 0) {
        give_place(*client);
        return client.release();
    }
    m_of_address.remove(client->addr.sin_addr);
    return nullptr;
}

// insert() has seen to the memory.
void client_table::give_place(WIN_CLIENT_t& client) noexcept
{
    if (m_free_places.empty()) {
        client.place = m_places.size();
        m_places.push_back(&client);
        return;
    }
    client.place = m_free_places.back();
    m_free_places.pop_back();
    m_places[client.place] = &client;
}

size_t client_table::size_of_address(in_addr address) noexcept
{
    const mutex_guard guard{m_mutex};
    return m_of_address.of(address);
}

void client_table::erase(const char* key) noexcept
{
    ++m_shape;
    const mutex_guard guard{m_mutex};
    if (const auto* client = static_cast<const WIN_CLIENT_t*>(zhashx_lookup(m_records.get(), key))) {
        m_of_address.remove(client->addr.sin_addr);
        m_places[client->place] = nullptr;
        m_free_places.push_back(client->place);
    }
    zhashx_delete(m_records.get(), key);
}

size_t client_table::size() noexcept
{
    const mutex_guard guard{m_mutex};
    return zhashx_size(m_records.get());
}

void client_table::set_mac_addr(WIN_CLIENT_t& client, const uint8_t* mac) noexcept
{
    const mutex_guard guard{m_mutex};
    std::memcpy(client.mac_addr, mac, mac_size);
}

void client_table::collect() noexcept
{
    const mutex_guard guard{m_mutex};
    m_walk.clear();
    assert(m_walk.capacity() >= zhashx_size(m_records.get())); // insert has seen to it
    visit_records([&](WIN_CLIENT_t& client) { m_walk.push_back(&client); });
}

static win_client_info info_of(const WIN_CLIENT_t& client) noexcept
{
    win_client_info info{bridge_identity{frame_bytes(client.id)}, client.addr, {}};
    std::memcpy(info.mac_addr, client.mac_addr, mac_size);
    return info;
}

std::vector<win_client_info> client_table::copy()
{
    std::vector<win_client_info> copies;
    const mutex_guard guard{m_mutex};
    copies.reserve(zhashx_size(m_records.get()));
    visit_records([&](const WIN_CLIENT_t& client) { copies.push_back(info_of(client)); });
    return copies;
}

// Who takes a lock again at once has it before those that have been waiting for it.
void client_table::let_others_in()
{
    std::this_thread::sleep_for(std::chrono::microseconds{50});
}

std::vector<win_client_info> client_table::copy_in_slices()
{
    std::vector<win_client_info> copies;
    copies.reserve(size() + clients_of_slice); // not under the lock
    visit_in_slices([&](const WIN_CLIENT_t& client) { copies.push_back(info_of(client)); });
    return copies;
}

// By a walk: the look-ups of the table may move it, and are its thread's.
std::optional<win_client_info> client_table::find_info(bytes_view identity) noexcept
{
    std::optional<win_client_info> found;
    visit_in_slices([&](const WIN_CLIENT_t& client) {
        if (std::ranges::equal(frame_bytes(client.id), identity))
            found = info_of(client);
    });
    return found;
}

} // namespace rtls
