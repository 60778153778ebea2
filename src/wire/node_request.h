// node_request - frames for one node, in the form in which the WIN client that reaches it expects them.
//
// A node that its WIN client knows by address gets the message followed by that address (direct form).
// A node reached through other nodes gets the message wrapped in a MSG_NWK_DATA_15_4_REQ (wrapped form).
// Pure functions on a copy of what they need of the node, so that nothing is framed under the registry's
// lock. No memory of their own.
// Threads    Any. Nothing waits; route_of under the registry's lock.
// Bytes      The message goes as it is. The wrapper's type is little-endian, its length big-endian.
// Failures   None.
#pragma once

#include "base/bytes.h"
#include "registry/node.h"
#include "wire/messaging.h"

#include <array>
#include <optional>

namespace rtls {

// A WIN client's routing identity. 255 bytes are ZeroMQ's own limit; a stream's identity has 5, and no more
// than it has are copied.
struct client_identity {
    // What is beyond the limit is cut off.
    explicit client_identity(bytes_view identity) noexcept;
    ~client_identity() = default;
    client_identity(const client_identity& other) noexcept : client_identity(other.view()) {}
    client_identity& operator=(const client_identity& other) noexcept;
    bytes_view view() const noexcept { return bytes_view{bytes}.first(size); }

    std::array<uint8_t, 255> bytes; // the first `size` of them
    uint8_t size;
};

// How a node is reached: what a frame for it needs of its record.
struct node_route {
    std::optional<client_identity> client; // none: heard of only by way of other clients
    std::array<uint8_t, ip_addr_size> ip_addr;
    bool forwarded_ip;
    bool direct_mask;
};

// A copy out of the record. The caller holds the registry's lock.
node_route route_of(const NODE_t& node);

// What a frame takes at most beside its message: the wrapper's header, the MAC and the address.
constexpr size_t node_request_overhead = msgHeader_t::size + mac_size + ip_addr_size;

// Each writes a frame to `out`, which has room for it, and returns the frame's size.

// message, address.
size_t node_request_direct(bytes_span out, const node_route& route, bytes_view message);

// Wrapper header with the message's size, message, `mac` (empty: none), address. The wrapper's sequence
// number is 0; its type says whether the node is reached directly by radio.
size_t node_request_wrapped(bytes_span out, const node_route& route, bytes_view message, bytes_view mac);

// The form that route.forwarded_ip asks for. The direct form has no MAC.
size_t node_request_frame(bytes_span out, const node_route& route, bytes_view message, bytes_view mac);

} // namespace rtls
