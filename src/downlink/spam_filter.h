// spam_filter - drops a command that repeats the node's last one.
//
// Servers repeat commands, and each costs radio time. What is remembered of a node stands in its record:
// the bytes of its last command, without the MAC, and the time of the last one that came. Of a command above
// 512 bytes its size and a hash of 64 bits: what is remembered takes at most half a KiB a node.
// Threads    WIN server thread. Takes the registry's lock itself; nothing waits.
// Bytes      As the dispatcher has them: the type little-endian, the rest as it came.
// Failures   A null argument, or memory that is short, is logged; the command passes then.
#pragma once

#include "base/bytes.h"
#include "downlink/node_delivery.h"
#include "registry/addresses.h"
#include "wire/messaging.h"

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

namespace rtls {

class NODES_CONTAINER_t;

// The shortest proxy command: a type, a byte and a MAC.
constexpr size_t proxy_command_min = msgGeneric_t::size + mac_size;

// Whether `data`, a command that ends in its node's MAC, came to that node less than 50 ms ago already.
// Nothing shorter than proxy_command_min, and nothing for an unknown node, ever did. `now` is the time of day.
// What the look-up has found of the node is left in `node`, for who goes on with the command.
bool spam_filter(NODES_CONTAINER_t& nodes, bytes_view data, timeval now, looked_up_node& node);

// The same by handle, for those outside. `p_nodes` is the registry.
bool spam_filter(void* p_nodes, const uint8_t* data, size_t data_size, timeval now);

} // namespace rtls
