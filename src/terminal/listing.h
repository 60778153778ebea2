// listing - the lists of clients and nodes that operators see.
//
// The node lists work on a snapshot: what they show is copied under the registry's lock, and made into
// text and sent after it, so that a slow terminal never holds up the WIN server.
// Ownership  Rows are copies, but for the bridges, to which they point by their place in the list given.
// Threads    The commands: terminal thread. The rest: any.
// Failures   Memory that runs out throws std::bad_alloc.
#pragma once

#include "registry/nodes_container.h"
#include "server/win_server.h"
#include "terminal/client.h"

#include <netinet/in.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace rtls {

struct terminal_request;

// What the lists show of one node.
struct node_row {
    timeval last_activity;
    uint32_t bridge; // index of the WIN client it belongs to, or no_bridge
    uint32_t sw_version;
    int32_t pos_X;
    int32_t pos_Y;
    int16_t z_val;
    int16_t z_offset;
    uint16_t lifetime;
    uint8_t type;
    uint8_t state;
    uint8_t ranging_freq;
    uint8_t sublocation_id;
    bool forwarded_ip;
    bool direct_mask;
    bool address_duplicated; // see mark_duplicate_addresses
    uint8_t mac_addr[mac_size];
    uint8_t parent_addr[mac_size];
    uint8_t ip_addr[ip_addr_size];
};
constexpr uint32_t no_bridge = UINT32_MAX;

// --- Lines. Pure; each with its line end.
std::string terminal_client_line(const TERMINAL_CLIENT_t& client, bool is_asking);
std::string win_client_line(const sockaddr_in& addr);
std::string bridge_line(const uint8_t* mac_addr, const sockaddr_in& addr);

// "fix", "brg" and so on, by the low four bits.
const char* get_node_type(uint8_t type);

// One node. `now` null: without the time of its last activity.
std::string node_line(const node_row& node, bool full, const timeval* now);

// --- Snapshot.
// The WIN clients by the bytes of their identity; the keys point into the clients.
using bridge_index = std::unordered_map<std::string_view, uint32_t>;
bridge_index index_bridges(std::span<const win_client_info> bridges);

// What the lists show of one node, which belongs to that bridge. Call it under the registry's lock.
void copy_node(const NODE_t& node, const bridge_index& bridges, node_row& row);

// Copies all nodes, in table order. Takes the registry's lock, for no longer than the copying.
std::vector<node_row> copy_nodes(NODES_CONTAINER_t& nodes, const bridge_index& bridges);

// The copying itself; call it under the lock. `rows` may bring memory along.
void copy_nodes_locked(NODES_CONTAINER_t& nodes, const bridge_index& bridges, std::vector<node_row>& rows)
    RTLS_REQUIRES(nodes);

// Flags the living nodes of a bridge that share an address of their own (not a forwarded one) with
// another living node of the same bridge.
void mark_duplicate_addresses(std::span<node_row> nodes);

// The rows as the lists group them; within a group in table order.
struct node_groups {
    std::vector<std::vector<const node_row*>> by_bridge;
    std::vector<const node_row*> floating; // alive, of no connected bridge
    std::vector<const node_row*> expired;  // whatever their bridge
};
node_groups group_nodes(std::span<const node_row> nodes, size_t bridges_number);

// --- Commands. Several rows leave in a frame. A listing ends at the first frame that the operator does not
// take.
void command_pcl(const terminal_request& request);
void command_pn(const terminal_request& request);
void command_pnf(const terminal_request& request);

} // namespace rtls
