// short_mac - nodes by the last two bytes of their MAC, as operators name them.
//
// Of several nodes with the same last two bytes the first in the registry's order is meant. One that comes or
// goes meanwhile may be meant or not.
// Threads    Any. Each function takes the registry's lock itself, and logs outside it.
// Blocking   Waits for the registry's lock, which it holds for a few thousand nodes at a time, and a little in
//            between: about a tenth of a second for a million nodes, and nothing if there is no such node.
// Failures   A null container is logged; there is no such node then.
#pragma once

#include "registry/nodes_container.h"

#include <cstdint>
#include <optional>

namespace rtls {

// The whole MAC of that node.
std::optional<mac_array> find_mac_by_short(NODES_CONTAINER_t* nodes, uint16_t short_mac);

// Removes that node from the registry, and tells its whole MAC.
std::optional<mac_array> delete_node_by_short_mac(NODES_CONTAINER_t* nodes, uint16_t short_mac);

} // namespace rtls
