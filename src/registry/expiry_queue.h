// expiry_queue - counts the nodes' lifetimes down without touching them, and knows who expired first.
//
// A node's lifetime is brought up to date when somebody looks at the node. Meanwhile the node waits in the
// slot of the tick at which it will expire; the tick moves the whole slot behind those that expired
// before, whatever their number.
// Ownership  The nodes stay the table's; take one out before it is destroyed.
// Threads    None of its own; the nodes container locks around it.
// Failures   Nothing throws; it needs no memory beyond its own.
#pragma once

#include "registry/node_table.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace rtls {

class expiry_queue {
public:
    expiry_queue();
    expiry_queue(const expiry_queue&) = delete;
    expiry_queue& operator=(const expiry_queue&) = delete;

    // Enters a new node, with its lifetime of 0: the last one to have expired.
    void add(stored_node& node);
    void remove(stored_node& node);

    // Gives the node another lifetime. One that has expired and is given 0 keeps its place.
    void set_lifetime(stored_node& node, uint16_t lifetime);

    // Brings the node's lifetime up to date. To be called before anybody reads or writes it.
    void settle(stored_node& node) const;

    // Ages every node by one second, at a cost that does not depend on their number.
    void tick();

    // How many nodes have a lifetime left, but for those with a longer one than the longest. Adds the slots up.
    size_t living() const;

    // The node whose lifetime has been 0 for longest, or nullptr if all nodes live.
    stored_node* longest_expired();

    // For whoever wants to be told of each node that expires: the next one that has since the last call of either, in
    // their order, or nullptr. A node that is renewed or goes before its turn is none.
    stored_node* next_newly_expired();
    // Those that have expired until now are told nobody.
    void pass_over_expired();

private:
    // More than the longest lifetime that a node can name. A node with a longer one (nothing but tests gives
    // any) is moved too early, and put back when it comes up.
    static constexpr size_t slot_count = 2048;

    bool has_expired(stored_node& node);
    void wait_in_slot(stored_node& node);
    bool waits_in_slot(const stored_node& node) const;
    void leave(stored_node& node);

    std::array<expiry_link, slot_count> m_slots; // the heads of circular lists: who expires at which tick
    expiry_link m_expired;                       // the head of the list of those that have, longest first
    expiry_link m_told;                          // in that list, no node: behind those that have been told
    std::array<uint32_t, slot_count> m_sizes{};  // of the slots
    uint32_t m_now = 0;                          // in ticks
};

} // namespace rtls
