#include "registry/address_index.h"

#include <cstring>
#include <new>

namespace rtls {

address_index::address_key address_index::key_of(const uint8_t* ip_addr)
{
    address_key key;
    std::memcpy(key.data(), ip_addr, sizeof key);
    return key;
}

void address_index::add(stored_node* node) noexcept
{
    if (node->forwarded_ip || m_given_up)
        return;
    try {
        m_trees[key_of(node->ip_addr)].insert(m_table, node);
    } catch (const std::bad_alloc&) {
        m_given_up = true; // slower from now on, but still right
    }
}

void address_index::remove(stored_node* node) noexcept
{
    if (node->forwarded_ip || m_given_up)
        return;
    const auto entry = m_trees.find(key_of(node->ip_addr));
    if (entry == m_trees.end())
        return;
    try {
        entry->second.remove(m_table, node);
    } catch (const std::bad_alloc&) {
        m_given_up = true;
        return;
    }
    if (entry->second.empty())
        m_trees.erase(entry);
}

std::optional<stored_node*> address_index::first_with(const uint8_t* ip_addr) noexcept
{
    if (m_given_up)
        return std::nullopt;
    const auto entry = m_trees.find(key_of(ip_addr));
    if (entry == m_trees.end())
        return nullptr;
    try {
        return entry->second.first(m_table);
    } catch (const std::bad_alloc&) {
        m_given_up = true;
        return std::nullopt;
    }
}

} // namespace rtls
