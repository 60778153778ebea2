// order_tree - nodes that share an address, sorted as the table is: the first one is found without a walk.
//
// A treap threaded through the nodes. Its shape comes from a seeded hash of where the nodes lie in memory:
// no choice of MACs or addresses makes it deep. A growth of the table reorders it; the tree follows
// when it is touched next, which happens at most once for each of the table's few sizes.
// Ownership  The nodes stay the table's; the tree is one pointer, and destroying it leaves the nodes alone.
// Threads    None of its own; the nodes container locks around it.
// Failures   Only the reordering needs memory: insert, remove and first throw std::bad_alloc.
#pragma once

#include "registry/node_table.h"

namespace rtls {

class order_tree {
public:
    // Enters a node of the table that is not in the tree.
    void insert(const node_table& table, stored_node* node);

    // Takes a node out, if it is in the tree; it may have left the table just now.
    void remove(const node_table& table, stored_node* node);

    // The first node in table order. The tree is not empty.
    stored_node* first(const node_table& table);

    bool empty() const { return !m_root; }

private:
    void follow_growth(const node_table& table);
    void stamp(const node_table& table);

    stored_node* m_root = nullptr; // its tree_growth says for which growth of the table the tree is sorted
};

} // namespace rtls
