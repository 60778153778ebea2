// Bytes from a bridge: whatever they are, no frame makes the daemon read past it or stumble.
//
// The first byte of an input selects what the rest is: a stream that the decoder cuts into frames, or one
// frame. The latter may be helped to a known type, a true length and an envelope, so that most runs get
// past the first checks. A frame is processed in a buffer of exactly its size, so that a read past its
// end does not go unseen.
#include "base/bytes.h"
#include "registry/nodes_container.h"
#include "support/idle_gateway.h"
#include "uplink/messages.h"
#include "wire/messaging.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace rtls {

namespace {

// A node known by its address, so that direct messages of its find a sender.
constexpr uint8_t known_mac[mac_size] = {0xE4, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
constexpr uint8_t known_address[ip_addr_size] = {0};

constexpr uint16_t known_types[] = {
    0, // whatever the input says
    MSG_WRAP_TS,
    MSG_PANID_REQ,
    MSG_ANNOUNCE_ROOT_IND,
    MSG_HEARTBEAT_IND | msg_flag_ack_requested,
    MSG_NODE_ANNOUNCE_IND,
    MSG_GENERIC_SERVER_REQ | msg_flag_ack_requested,
    MSG_SENSOR_IND_NEW,
};

constexpr uint16_t known_sub_commands[] = {GENERIC_REQ_RouteRequest, GENERIC_REQ_OtaPage,
                                           GENERIC_REQ_OtaApply, GENERIC_REQ_UltdoaData,
                                           GENERIC_REQ_RangeRpt};

namespace option {
constexpr unsigned type = 0x07; // index into known_types
constexpr unsigned true_length = 0x08;
constexpr unsigned known_sub_command = 0x10;
constexpr unsigned is_forwarded = 0x20;
constexpr unsigned is_stream = 0x80; // nothing is helped
} // namespace option
static_assert(std::size(known_types) == option::type + 1, "a type that no index reaches is never tried");

void forget_everything(idle_gateway& gateway)
{
    WIN_SERVER_t& server = gateway.server();
    gateway.delete_nodes();
    if (server.rpl_timer_is_active) {
        server.actor_loop.reset(); // before the next one
        server.actor_loop.reset(zloop_new());
    }
    server.rpl_timer_is_active = server.unprocessed_MSG_PANID_REQ = false;

    const nodes_guard guard{*gateway.nodes()};
    NODE_t* node = nodes_container_find_or_create_by_mac(gateway.nodes(), known_mac, nullptr, 0);
    nodes_container_set_address(gateway.nodes(), node, known_address, false);
    node_update_win_client_ID(node, gateway.bridge().id);
}

void process_frame(idle_gateway& gateway, bytes_view frame)
{
    WIN_CLIENT_t& bridge = gateway.bridge();
    bridge.pending_data.reset(static_cast<uint8_t*>(malloc(frame.size())));
    bridge.pending_data_size = bridge.pending_buffsize = frame.size();
    if (!frame.empty())
        std::memcpy(bridge.pending_data, frame.data(), frame.size());
    process_data_from_win_client(&gateway.server(), &bridge);
}

void append(std::vector<uint8_t>& to, bytes_view bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

// A message of its record's size, or of the length that it then states, with its sender's address.
std::vector<uint8_t> sized(std::vector<uint8_t> message)
{
    message.resize(std::max(message.size(), msgHeader_t::size + 2));
    switch (load_le16(message, 0) & ~msg_flag_ack_requested) {
    case MSG_PANID_REQ:
        message.resize(gwMsgPrefixRequest_t::size);
        return message;
    case MSG_ANNOUNCE_ROOT_IND:
        message.resize(gwMsgRootAnnounce_t::size);
        return message;
    case MSG_HEARTBEAT_IND:
    case MSG_NODE_ANNOUNCE_IND:
        message.resize(gwMsgHeartbeat_t::size);
        return message;
    default:
        store_le16(message, msgHeader_t::total_len,
                   static_cast<uint16_t>(message.size() - msgHeader_t::size));
        append(message, known_address);
        return message;
    }
}

std::vector<uint8_t> wrapped(std::vector<uint8_t> inner, unsigned options)
{
    // A forwarded heartbeat lacks what its envelope's trailer stands for.
    const size_t trailer = nwk_data_ind::overhead - nwk_data_ind::inner;
    if (options & option::true_length)
        inner.resize(inner.size() > gwMsgHeartbeat_t::bridge_mac ? inner.size() - trailer : inner.size());
    std::vector<uint8_t> frame(msgHeader_t::size);
    store_le16(frame, msgHeader_t::msgType, MSG_NWK_DATA_15_4_IND | msg_flag_ack_requested);
    store_le16(frame, msgHeader_t::total_len, static_cast<uint16_t>(inner.size()));
    append(frame, inner);
    append(frame, known_mac);
    append(frame, known_address);
    return frame;
}

std::vector<uint8_t> helped(std::vector<uint8_t> message, unsigned options)
{
    if (const auto type = known_types[options & option::type]; type != 0) {
        message.resize(std::max(message.size(), msgHeader_t::size + 2));
        store_le16(message, msgHeader_t::msgType, type);
    }
    if ((options & option::true_length) != 0)
        message = sized(std::move(message));
    if ((options & option::known_sub_command) != 0 && message.size() > generic_server_request::body)
        store_be16(
            message, generic_server_request::sub_command,
            known_sub_commands[message[generic_server_request::sub_command] % std::size(known_sub_commands)]);
    return (options & option::is_forwarded) != 0 ? wrapped(std::move(message), options) : message;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static idle_gateway gateway;
    static constexpr uint8_t decoder_identity[] = {0x00, 0x55, 0x66, 0x77, 0x88};
    static WIN_CLIENT_t* decoder = gateway.add_bridge(decoder_identity);
    debug_mask = 0xFFFF; // every line is formatted
    if (size == 0)
        return 0;
    forget_everything(gateway);

    if (const unsigned options = data[0]; options & option::is_stream) {
        decoder->parsing_state = PS_NONE;
        win_client_decode(*decoder, {data + 1, size - 1}, [&](WIN_CLIENT_t& complete) {
            process_frame(gateway, {complete.pending_data.get(), complete.pending_data_size});
        });
    } else {
        process_frame(gateway, helped({data + 1, data + size}, options));
    }
    idle_gateway::drop_unsent(gateway.bridge());
    idle_gateway::drop_unsent(*decoder); // broadcasts reach it, too
    return 0;
}

} // namespace rtls
