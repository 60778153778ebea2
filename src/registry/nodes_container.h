// nodes_container - the nodes heard of so far, keyed by their 8-byte MAC.
//
// Ownership  The container owns its nodes. A NODE_t* is borrowed, and valid only while the lock is held.
// Threads    WIN server and terminal. Hold the lock around each call and each whole iteration, except
//            where a function says that it takes the lock itself.
// Failures   A null argument is logged and answered with nullptr, 0 or nothing.
#pragma once

#include "registry/node.h"

#include <cstddef>
#include <cstdint>

namespace rtls {

// The most nodes one container takes: peers create nodes, and nothing but an operator removes them.
constexpr size_t nodes_container_limit = 1'000'000;

// An empty container, or nullptr. Release it with nodes_container_destroy.
void* nodes_container_new(void);
// Frees the container and its nodes; nulls the handle. Takes a null handle.
void nodes_container_destroy(void** pp_nodes);

void nodes_container_lock(void* p_nodes);
void nodes_container_unlock(void* p_nodes);

size_t nodes_container_get_size(void* p_nodes);

// The container's one cursor, in table order. Any other call may reorder the table: never look up
// while iterating.
NODE_t* nodes_container_get_first(void* p_nodes);
NODE_t* nodes_container_get_next(void* p_nodes);

// The node with exactly this MAC, or nullptr.
NODE_t* nodes_container_find_by_mac(void* p_nodes, const uint8_t* mac);

// The node with this MAC, made if it is new. With a sequence number (may be null), nullptr for a
// known node that already has it: a duplicate, to be dropped. A new node does not take the number
// over, so that its second message is the first one compared. `cmd` is the message type; not used.
NODE_t* nodes_container_find_or_create_by_mac(void* p_nodes, const uint8_t* mac,
                                              const uint8_t* sequence_number, uint16_t cmd);

// The first node in table order whose MAC ends in these two bytes, or nullptr.
NODE_t* nodes_container_find_by_short_mac(void* p_nodes, uint8_t short_mac_hi, uint8_t short_mac_lo);

// The first node in table order with this address that is not marked forwarded_ip; else the node
// whose MAC the address's interface identifier stands for; else nullptr.
NODE_t* nodes_container_find_by_ip(void* p_nodes, const uint8_t* ip_addr);

// Gives the node another address; keeps the look-up by address in step.
void nodes_container_set_address(void* p_nodes, NODE_t* node, const uint8_t* ip_addr, bool forwarded_ip);

// Ages every node by one second. Takes the lock itself: call it without.
void nodes_container_update_lifetime(void* p_nodes);

// Removes and destroys the node with this MAC, if there is one.
void nodes_container_delete(void* p_nodes, const uint8_t* mac);

// Holds the container's lock for a scope.
class nodes_guard {
public:
    explicit nodes_guard(void* p_nodes) : m_nodes(p_nodes) { nodes_container_lock(m_nodes); }
    ~nodes_guard() { nodes_container_unlock(m_nodes); }
    nodes_guard(const nodes_guard&) = delete;
    nodes_guard& operator=(const nodes_guard&) = delete;

private:
    void* m_nodes;
};

} // namespace rtls
