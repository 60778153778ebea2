#include "link/client_table.h"

#include <cassert>
#include <cstring>
#include <new>

namespace rtls {

client_table::client_table() : m_records(zhashx_new())
{
    if (m_records)
        zhashx_set_destructor(m_records.get(), win_client_destroy);
}

WIN_CLIENT_t* client_table::find(const char* key) noexcept
{
    // A look-up that meets a long chain moves the whole table to new buckets.
    const mutex_guard guard{m_mutex};
    return static_cast<WIN_CLIENT_t*>(zhashx_lookup(m_records.get(), key));
}

WIN_CLIENT_t* client_table::insert(const char* key, win_client_ptr client) noexcept
{
    const mutex_guard guard{m_mutex};
    try {
        if (m_walk.capacity() <= zhashx_size(m_records.get()))
            m_walk.reserve(2 * m_walk.capacity() + 8);
        m_of_address.add(client->addr.sin_addr);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (zhashx_insert(m_records.get(), key, client.get()) == 0)
        return client.release();
    m_of_address.remove(client->addr.sin_addr);
    return nullptr;
}

size_t client_table::size_of_address(in_addr address) noexcept
{
    const mutex_guard guard{m_mutex};
    return m_of_address.of(address);
}

void client_table::erase(const char* key) noexcept
{
    const mutex_guard guard{m_mutex};
    if (const auto* client = static_cast<const WIN_CLIENT_t*>(zhashx_lookup(m_records.get(), key)))
        m_of_address.remove(client->addr.sin_addr);
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

std::vector<win_client_info> client_table::copy()
{
    std::vector<win_client_info> copies;
    const mutex_guard guard{m_mutex};
    copies.reserve(zhashx_size(m_records.get()));
    visit_records([&](const WIN_CLIENT_t& client) {
        win_client_info& copy = copies.emplace_back();
        copy.id.reset(zframe_dup(client.id));
        copy.addr = client.addr;
        std::memcpy(copy.mac_addr, client.mac_addr, mac_size);
    });
    return copies;
}

} // namespace rtls
