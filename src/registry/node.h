// node - what the gateway knows of one node of the location network.
//
// Ownership  A node owns the identity and the command that it keeps.
// Threads    Those of its container, under its lock. Nothing waits.
// Failures   A null argument, and memory that is short, are logged.
#pragma once

#include "base/czmq_ptr.h"
#include "registry/addresses.h"

#include <czmq.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace rtls {

// One node. Owned by the nodes container; borrowed under its lock.
// ip_addr and forwarded_ip change only through the container's set_address, which keeps the container's
// look-up by address in step; lifetime through its set_lifetime, which keeps the order in which nodes
// expire. The container counts lifetime down as it hands the node out.
struct NODE_t {
    zframe_ptr win_client_id;           // the WIN client it was last heard through, null until known
    uint8_t ip_addr[ip_addr_size] = {}; // IPv6, network order
    uint8_t mac_addr[mac_size] = {};    // the container's key
    uint8_t parent_addr[mac_size] = {}; // MAC of the parent in the routing tree
    uint16_t lifetime = 0;              // seconds left before the node counts as lost
    uint16_t lifetime_end = 0;          // the container's: the tick at which it is to be moved, its low bits
    uint32_t lifetime_tick = 0;         // the container's: up to when lifetime is counted down
    timeval last_activity = {};
    uint32_t sw_version = 0;
    uint8_t type = 0; // NODE_ROLE, low four bits
    uint8_t ranging_freq = 0;
    uint8_t reporting_freq = 0;
    uint8_t sublocation_id = 0;
    int32_t pos_X = 0;
    int32_t pos_Y = 0;
    int32_t pos_Z = 0;              // height: one value, or the two halves below
    uint8_t state = 0;              // high four bits of the heartbeat's role byte, unshifted
    bool forwarded_ip = false;      // ip_addr came in a forwarded message and does not identify the node
    uint8_t sequence_number = 0;    // of the last accepted message
    std::vector<uint8_t> last_data; // of the last command sent to the node, without its MAC; keeps its memory
    timeval last_data_time = {};
    bool direct_mask =
        false; // its last forwarded message came to its bridge directly; goes into wrapped commands
};

// pos_Z as two halves: the height in the low 16 bits, its offset in the high 16 bits.
constexpr int16_t node_z_val(const NODE_t& node)
{
    return static_cast<int16_t>(static_cast<uint32_t>(node.pos_Z) & 0xFFFF);
}
constexpr int16_t node_z_offset(const NODE_t& node)
{
    return static_cast<int16_t>(static_cast<uint32_t>(node.pos_Z) >> 16);
}

// A node's address pair; kept for those outside.
struct NODE_small_t {
    uint8_t ip_addr[ip_addr_size];
    uint8_t mac_addr[mac_size];
};

// Frees a node made with new, and all it owns; leaves null. Takes null. For those who make nodes of their
// own: the container's are freed by it alone.
void node_destroy(void** pp_node);

// Points the node at another WIN client: keeps a copy of `win_client_id`. False, with a log line and
// the old one gone, when memory is short. Under the registry's lock, its own set_win_client is the way.
bool node_update_win_client_ID(NODE_t* node, zframe_t* win_client_id);

// The same, which logs nothing: errno tells why.
bool node_set_win_client(NODE_t& node, zframe_t* win_client_id) noexcept;

} // namespace rtls
