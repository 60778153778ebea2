// address_index - finds a node by its IPv6 address, as long as no other node has the same one.
//
// Nodes marked forwarded_ip are not in it, their address being somebody else's. The address of all
// zeros, which every node has until it tells its own, is only counted.
// Ownership  The nodes stay the table's; take one out of the index before it is destroyed or changed.
// Threads    None of its own; the nodes container locks around it.
#pragma once

#include "registry/node_table.h"

#include <array>
#include <optional>

namespace rtls {

class address_index {
public:
    // Enters and takes out a node by its present ip_addr and forwarded_ip.
    void add(stored_node* node) noexcept;
    void remove(stored_node* node) noexcept;

    // The node with this address, or nullptr if there is none. Nothing at all if several nodes share
    // it: the order of the table has to decide.
    std::optional<stored_node*> only_with(const uint8_t* ip_addr) const noexcept;

private:
    using address_key = std::array<uint64_t, 2>;
    static_assert(sizeof(address_key) == ip_addr_size);
    struct key_hash {
        size_t operator()(const address_key& key) const { return seeded_hash(key[0], key[1]); }
    };

    static address_key key_of(const uint8_t* ip_addr);

    std::unordered_map<address_key, stored_node*, key_hash> m_heads; // of the lists of nodes with one address
    size_t m_unset = 0;                                              // nodes with the address of all zeros
    bool m_incomplete = false;                                       // a node is missing: memory was short
};

} // namespace rtls
