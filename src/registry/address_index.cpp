#include "registry/address_index.h"

#include <cstring>
#include <new>

namespace rtls {

static constexpr std::array<uint64_t, 2> unset_address{};

address_index::address_key address_index::key_of(const uint8_t* ip_addr)
{
    address_key key;
    memcpy(key.data(), ip_addr, sizeof key);
    return key;
}

void address_index::add(stored_node* node) noexcept
{
    if (node->forwarded_ip)
        return;
    const address_key key = key_of(node->ip_addr);
    if (key == unset_address) {
        ++m_unset;
        return;
    }
    try {
        stored_node*& head = m_heads[key];
        node->previous_with_address = nullptr;
        node->next_with_address = head;
        if (head)
            head->previous_with_address = node;
        head = node;
    } catch (const std::bad_alloc&) {
        m_incomplete = true; // slower from now on, but still right
    }
}

void address_index::remove(stored_node* node) noexcept
{
    if (node->forwarded_ip)
        return;
    const address_key key = key_of(node->ip_addr);
    if (key == unset_address) {
        --m_unset;
        return;
    }
    stored_node* const previous = node->previous_with_address;
    stored_node* const next = node->next_with_address;
    node->previous_with_address = node->next_with_address = nullptr;
    if (next)
        next->previous_with_address = previous;
    if (previous) {
        previous->next_with_address = next;
        return;
    }
    const auto entry = m_heads.find(key);
    if (entry == m_heads.end() || entry->second != node)
        return; // it never got in
    if (next)
        entry->second = next;
    else
        m_heads.erase(entry);
}

std::optional<stored_node*> address_index::only_with(const uint8_t* ip_addr) const noexcept
{
    if (m_incomplete)
        return std::nullopt;
    const address_key key = key_of(ip_addr);
    if (key == unset_address)
        return m_unset == 0 ? std::optional<stored_node*>{nullptr} : std::nullopt;
    const auto entry = m_heads.find(key);
    if (entry == m_heads.end())
        return nullptr;
    return entry->second->next_with_address ? std::nullopt : std::optional{entry->second};
}

} // namespace rtls
