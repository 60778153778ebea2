// address_index - finds the node that an IPv6 address means: the first one in table order that has it.
//
// Peers choose the addresses, and may give one to every node. The nodes with one address are therefore
// kept sorted. Nodes marked forwarded_ip are not in the index, their address being somebody else's. The
// address of all zeros, which every node has until it tells its own, is an address as any other.
// Ownership  The nodes stay the table's; take one out of the index before it is destroyed or changed.
// Threads    None of its own; the nodes container locks around it.
// Failures   When memory is short the index gives up for good: the table has to be walked.
#pragma once

#include "registry/node_table.h"
#include "registry/order_tree.h"

#include <array>
#include <cstdint>
#include <optional>
#include <unordered_map>

namespace rtls {

class address_index {
public:
    // Of the nodes in `table`, which has to outlive the index.
    explicit address_index(const node_table& table) : m_table(table) {}

    // Enters and takes out a node by its present ip_addr and forwarded_ip.
    void add(stored_node* node) noexcept;
    void remove(stored_node* node) noexcept;

    // The first node in table order with this address, or nullptr if there is none. Nothing at all if the
    // index has given up.
    std::optional<stored_node*> first_with(const uint8_t* ip_addr) noexcept;

private:
    using address_key = std::array<uint64_t, 2>;
    static_assert(sizeof(address_key) == ip_addr_size);
    struct key_hash {
        size_t operator()(const address_key& key) const { return seeded_hash(key[0], key[1]); }
    };

    static address_key key_of(const uint8_t* ip_addr);

    const node_table& m_table;
    std::unordered_map<address_key, order_tree, key_hash> m_trees; // of the nodes with one address
    bool m_given_up = false;
};

} // namespace rtls
