// node_request - frames for one node, in the form in which the WIN client that reaches it expects them.
//
// A node that its WIN client knows by address gets the message followed by that address (direct form).
// A node reached through other nodes gets the message wrapped in a MSG_NWK_DATA_15_4_REQ (wrapped form).
// Pure functions; the caller holds the nodes container's lock as long as it uses the node.
#pragma once

#include "base/bytes.h"
#include "registry/node.h"
#include "wire/messaging.h"

namespace rtls {

// What a frame takes at most beside its message: the wrapper's header, the MAC and the address.
constexpr size_t node_request_overhead = msgHeader_t::size + mac_size + ip_addr_size;

// Each writes a frame to `out`, which has room for it, and returns the frame's size.

// message, address.
size_t node_request_direct(bytes_span out, const NODE_t& node, bytes_view message);

// Wrapper header with the message's size, message, `mac` (empty: none), address. The wrapper's sequence
// number is 0; its type says whether the node is reached directly by radio.
size_t node_request_wrapped(bytes_span out, const NODE_t& node, bytes_view message, bytes_view mac);

// The form that node.forwarded_ip asks for. The direct form has no MAC.
size_t node_request_frame(bytes_span out, const NODE_t& node, bytes_view message, bytes_view mac);

} // namespace rtls
