#include "wire/node_request.h"

namespace rtls {

// Set in the high byte of the wrapper's type for a node that is reached directly.
constexpr gwCmdID_t wrapper_direct = msg_flag_direct_mask;

static bytes_view address_of(const NODE_t& node)
{
    return {node.ip_addr, ip_addr_size};
}

size_t node_request_direct(bytes_span out, const NODE_t& node, bytes_view message)
{
    store_bytes(out, 0, message);
    store_bytes(out, message.size(), address_of(node));
    return message.size() + ip_addr_size;
}

size_t node_request_wrapped(bytes_span out, const NODE_t& node, bytes_view message, bytes_view mac)
{
    const gwCmdID_t direct = node.direct_mask ? wrapper_direct : gwCmdID_t{0};
    store_le16(out, msgHeader_t::msgType, MSG_NWK_DATA_15_4_REQ | direct);
    out[msgHeader_t::seqNo] = 0;
    // Big-endian beside a little-endian type: that is how bridges read what the gateway builds.
    store_be16(out, msgHeader_t::total_len, static_cast<uint16_t>(message.size()));

    size_t at = msgHeader_t::size;
    for (const bytes_view part : {message, mac, address_of(node)}) {
        store_bytes(out, at, part);
        at += part.size();
    }
    return at;
}

size_t node_request_frame(bytes_span out, const NODE_t& node, bytes_view message, bytes_view mac)
{
    return node.forwarded_ip ? node_request_wrapped(out, node, message, mac)
                             : node_request_direct(out, node, message);
}

} // namespace rtls
