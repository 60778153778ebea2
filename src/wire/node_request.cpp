#include "wire/node_request.h"

#include "base/peer.h"

#include <algorithm>
#include <cstring>

namespace rtls {

// Set in the high byte of the wrapper's type for a node that is reached directly.
static constexpr gwCmdID_t wrapper_direct = msg_flag_direct_mask;

client_identity::client_identity(bytes_view identity) noexcept
    : size(static_cast<uint8_t>(std::min(identity.size(), bytes.size())))
{
    store_bytes(bytes, 0, identity.first(size));
}

client_identity& client_identity::operator=(const client_identity& other) noexcept
{
    size = other.size;
    std::memmove(bytes.data(), other.bytes.data(), size); // it may be this one
    return *this;
}

node_route route_of(const NODE_t& node)
{
    node_route route{};
    if (node.win_client_id)
        route.client.emplace(frame_bytes(node.win_client_id.get()));
    store_bytes(route.ip_addr, 0, {node.ip_addr, ip_addr_size});
    route.forwarded_ip = node.forwarded_ip;
    route.direct_mask = node.direct_mask;
    return route;
}

size_t node_request_direct(bytes_span out, const node_route& route, bytes_view message)
{
    store_bytes(out, 0, message);
    store_bytes(out, message.size(), route.ip_addr);
    return message.size() + ip_addr_size;
}

size_t node_request_wrapped(bytes_span out, const node_route& route, bytes_view message, bytes_view mac)
{
    const gwCmdID_t direct = route.direct_mask ? wrapper_direct : gwCmdID_t{0};
    store_le16(out, msgHeader_t::msgType, MSG_NWK_DATA_15_4_REQ | direct);
    out[msgHeader_t::seqNo] = 0;
    // Big-endian beside a little-endian type: that is how bridges read what the gateway builds.
    store_be16(out, msgHeader_t::total_len, static_cast<uint16_t>(message.size()));

    size_t at = msgHeader_t::size;
    for (const bytes_view part : {message, mac, bytes_view{route.ip_addr}}) {
        store_bytes(out, at, part);
        at += part.size();
    }
    return at;
}

size_t node_request_frame(bytes_span out, const node_route& route, bytes_view message, bytes_view mac)
{
    return route.forwarded_ip ? node_request_wrapped(out, route, message, mac)
                              : node_request_direct(out, route, message);
}

} // namespace rtls
