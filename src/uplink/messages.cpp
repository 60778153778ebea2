#include "uplink/messages.h"

#include "base/null_check.h"
#include "base/peer.h"
#include "link/rpl_version.h"
#include "link/sending.h"
#include "link/tapped.h"
#include "uplink/link_frame.h"
#include "uplink/payloads.h"

#include <cstring>
#include <optional>

namespace rtls {

static constexpr uint16_t node_lifetime = 300; // seconds; a heartbeat names its own

// --- what several handlers do

// Points the node at the client that the frame came from, unless its route is to stay. Under the lock.
static void move_route_locked(link_frame& frame, NODE_t& node) RTLS_REQUIRES(frame.nodes);

static void move_route_locked(link_frame& frame, NODE_t& node)
{
    if (frame.change_route)
        frame.nodes.set_win_client(node, frame.client.id);
}

// Registers a sign of life of the node with this MAC. Otherwise what becomes of the message: a duplicate, or
// there is no room for the node.
static std::optional<message_outcome> refresh_node(link_frame& frame, const uint8_t* mac)
{
    const nodes_guard guard{frame.nodes};
    NODE_t* node = frame.nodes.find_or_create_by_mac(mac, frame.seq_no());
    if (!node)
        return frame.refusal_locked();
    frame.note_locked(frame.news, frame.has_news, *node, frame.change_route);
    move_route_locked(frame, *node);
    frame.nodes.set_lifetime(*node, node_lifetime);
    node->last_activity = frame.activity();
    return std::nullopt;
}

// Takes over the MAC that the bridge of this connection gives itself; `source` says in which message.
static void learn_bridge_mac(link_frame& frame, const char* source, const uint8_t* mac)
{
    const uint8_t* old = frame.client.mac_addr;
    if (std::memcmp(old, mac, mac_size) == 0)
        return;
    // The first five bytes in lower case, the rest in upper: log filters know the line so.
    dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_DEVELOP, "SLIP",
                 "Change connection MAC-address from %s %02x%02x%02x%02x%02x%02X%02X%02X -> "
                 "%02x%02x%02x%02x%02x%02X%02X%02X",
                 source, old[0], old[1], old[2], old[3], old[4], old[5], old[6], old[7], mac[0], mac[1],
                 mac[2], mac[3], mac[4], mac[5], mac[6], mac[7]);
    frame.server.clients.set_mac_addr(frame.client, mac);
    if (frame.server.tap.takes(tap_class::event))
        tap_named(frame.server, frame.client);
}

// --- handlers

static message_outcome handle_panid_req(link_frame& frame)
{
    const uint8_t* mac = &frame.msg[gwMsgPrefixRequest_t::ieee_addr];
    if (dbg_is_wanted(DBG_PARSING))
        dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                     "MSG_PANID_REQ %02x MAC : %s", *frame.seq_no(), octets_mac_text{mac}.c_str());
    learn_bridge_mac(frame, "PANID_REQ", mac);
    if (const auto refusal = refresh_node(frame, mac))
        return *refusal;
    // While the timer of the last broadcast runs, requests are collected for the next.
    if (frame.server.rpl_timer_is_active)
        frame.server.unprocessed_MSG_PANID_REQ = true;
    else
        rpl_version_to_win_clients(&frame.server);
    return message_outcome::answered;
}

static message_outcome handle_announce_root(link_frame& frame)
{
    const uint8_t* mac = &frame.msg[gwMsgRootAnnounce_t::ieee_addr];
    const uint16_t prefix = load_le16(frame.msg, gwMsgRootAnnounce_t::rplPrefix);
    if (dbg_is_wanted(DBG_PARSING))
        dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                     "MSG_ANNOUNCE_ROOT_IND: %02x PREF: %04X VER: %d MAC : %s", *frame.seq_no(), prefix,
                     frame.msg[gwMsgRootAnnounce_t::rpl_version], octets_mac_text{mac}.c_str());
    if (const auto refusal = refresh_node(frame, mac))
        return *refusal;
    store_be16(frame.msg, gwMsgGeneric_t::msgType, frame.type);
    store_be16(frame.msg, gwMsgRootAnnounce_t::rplPrefix, prefix);
    return frame.to_msg_handler(frame.msg.first(gwMsgRootAnnounce_t::rpl_version)); // the version stays here
}

namespace {

// The numbers of a heartbeat in host order.
struct heartbeat_numbers {
    uint32_t sw_version;
    int32_t pos_X;
    int32_t pos_Y;
    int32_t pos_Z;
};

} // namespace

static heartbeat_numbers read_heartbeat(bytes_view msg)
{
    return {
        .sw_version = load_le32(msg, gwMsgHeartbeat_t::sw_version),
        .pos_X = static_cast<int32_t>(load_le32(msg, gwMsgHeartbeat_t::pos_X)),
        .pos_Y = static_cast<int32_t>(load_le32(msg, gwMsgHeartbeat_t::pos_Y)),
        .pos_Z = static_cast<int32_t>(load_le32(msg, gwMsgHeartbeat_t::pos_Z)),
    };
}

// The heartbeat's part in the registry. Otherwise what becomes of the message; of a duplicate nothing is kept.
static std::optional<message_outcome> update_node(link_frame& frame, const heartbeat_numbers& heartbeat)
{
    const bytes_view msg = frame.msg;
    const uint8_t role = msg[gwMsgHeartbeat_t::node_role];
    const nodes_guard guard{frame.nodes};
    NODE_t* node = frame.nodes.find_or_create_by_mac(&msg[gwMsgHeartbeat_t::long_addr], frame.seq_no());
    if (!node)
        return frame.refusal_locked();
    frame.note_locked(frame.news, frame.has_news, *node, frame.change_route);
    if (frame.has_news) [[unlikely]]
        frame.news.note_parent(*node, msg.subspan(gwMsgHeartbeat_t::parent_addr, mac_size));
    node->sw_version = heartbeat.sw_version;
    node->type = role & 0x0F;
    node->state = role & 0xF0; // not shifted: it is shown and compared in this place
    node->ranging_freq = msg[gwMsgHeartbeat_t::ranging_freq];
    node->reporting_freq = msg[gwMsgHeartbeat_t::reporting_freq];
    node->sublocation_id = msg[gwMsgHeartbeat_t::sublocation_id];
    node->pos_X = heartbeat.pos_X;
    node->pos_Y = heartbeat.pos_Y;
    node->pos_Z = heartbeat.pos_Z;
    frame.nodes.set_lifetime(*node, static_cast<uint16_t>(node->reporting_freq * 5));
    node->last_activity = frame.activity();
    move_route_locked(frame, *node);
    if (frame.change_route)
        frame.nodes.set_address(*node, &msg[gwMsgHeartbeat_t::ipaddr], frame.msg_is_forwarded);
    std::memcpy(node->parent_addr, &msg[gwMsgHeartbeat_t::parent_addr], mac_size);
    return std::nullopt;
}

static void print_heartbeat(const link_frame& frame, const heartbeat_numbers& heartbeat)
{
    const bytes_view msg = frame.msg;
    const uint8_t* node = &msg[gwMsgHeartbeat_t::long_addr];
    const uint8_t* parent = &msg[gwMsgHeartbeat_t::parent_addr];
    const auto z_val = static_cast<int16_t>(load_le16(msg, gwMsgHeartbeat_t::z_val));
    const auto z_offset = static_cast<int16_t>(load_le16(msg, gwMsgHeartbeat_t::z_offset));
    dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                 "%s %04X src:%02X%02X seq:%02X rf:%d rngf:%d role:%02X sl:%02x par:%02X%02X sw:%08x "
                 "xyz:%d;%d;%d zoff:%d",
                 frame.type == MSG_HEARTBEAT_IND ? "MSG_HEARTBEAT_IND" : "MSG_NODE_ANNOUNCE_IND", frame.type,
                 node[6], node[7], msg[msgGeneric_t::seqNo], msg[gwMsgHeartbeat_t::reporting_freq],
                 msg[gwMsgHeartbeat_t::ranging_freq], msg[gwMsgHeartbeat_t::node_role],
                 msg[gwMsgHeartbeat_t::sublocation_id], parent[6], parent[7], heartbeat.sw_version,
                 heartbeat.pos_X, heartbeat.pos_Y, z_val, z_offset);
}

static message_outcome handle_heartbeat(link_frame& frame)
{
    // A forwarded one has the sender's trailer where a direct one names its bridge and its address: the
    // bridge is this client then, and the address is at the same place.
    uint8_t* bridge_mac = &frame.msg[gwMsgHeartbeat_t::bridge_mac];
    if (frame.msg_is_forwarded)
        std::memcpy(bridge_mac, frame.client.mac_addr, mac_size);
    else
        learn_bridge_mac(frame, frame.type == MSG_HEARTBEAT_IND ? "HB" : "NA", bridge_mac);
    frame.acknowledge_to(&frame.msg[gwMsgHeartbeat_t::ipaddr]);

    const heartbeat_numbers heartbeat = read_heartbeat(frame.msg);
    if (const auto refusal = update_node(frame, heartbeat))
        return *refusal;
    print_heartbeat(frame, heartbeat);

    store_be16(frame.msg, msgGeneric_t::msgType, frame.type);
    store_be32(frame.msg, gwMsgHeartbeat_t::sw_version, heartbeat.sw_version);
    store_be32(frame.msg, gwMsgHeartbeat_t::pos_X, static_cast<uint32_t>(heartbeat.pos_X));
    store_be32(frame.msg, gwMsgHeartbeat_t::pos_Y, static_cast<uint32_t>(heartbeat.pos_Y));
    // As one word, so that upstream z_offset comes before z_val.
    store_be32(frame.msg, gwMsgHeartbeat_t::pos_Z, static_cast<uint32_t>(heartbeat.pos_Z));
    return frame.to_msg_handler(frame.msg.first(gwMsgHeartbeat_t::ipaddr));
}

// --- dispatch

namespace {

struct link_message {
    uint16_t type;
    message_type kind;
    // Of frame.msg, exactly. A forwarded message brings its envelope's trailer along: so a forwarded
    // heartbeat has the direct one's size, and other fixed sizes are refused.
    size_t size;
    message_outcome (*handle)(link_frame&);
};

} // namespace

static constexpr size_t checked_by_handler = 0;
static constexpr link_message link_messages[] = {
    {MSG_PANID_REQ, message_type::panid_req, gwMsgPrefixRequest_t::size, handle_panid_req},
    {MSG_ANNOUNCE_ROOT_IND, message_type::announce_root, gwMsgRootAnnounce_t::size, handle_announce_root},
    {MSG_HEARTBEAT_IND, message_type::heartbeat, gwMsgHeartbeat_t::size, handle_heartbeat},
    // The same record.
    {MSG_NODE_ANNOUNCE_IND, message_type::node_announce, gwMsgHeartbeat_t::size, handle_heartbeat},
    {MSG_GENERIC_SERVER_REQ, message_type::generic_server_req, checked_by_handler, handle_generic_server_req},
    {MSG_SENSOR_IND_NEW, message_type::sensor, checked_by_handler, handle_sensor_report},
};
static_assert(gwMsgHeartbeat_t::size ==
              gwMsgHeartbeat_t::bridge_mac + nwk_data_ind::overhead - nwk_data_ind::inner);

// Hands the message to the handler of its type. A wrong size refuses the frame.
static message_outcome dispatch(link_frame& frame)
{
    for (const auto& m : link_messages)
        if (m.type == frame.type) {
            frame.kind = m.kind;
            const bool fits = m.size == checked_by_handler || m.size == frame.msg.size();
            return fits ? m.handle(frame) : message_outcome::wrong_size;
        }
    frame.kind = message_type::other;
    return message_outcome::unknown_type; // it needs no action
}

// --- envelopes

// Takes a timestamp envelope off. False when the frame is too short for one.
static bool unwrap_timestamp(link_frame& frame)
{
    // Compared with its flag bits: a flagged type is no timestamp envelope.
    if (load_le16(frame.msg, msgHeader_t::msgType) != MSG_WRAP_TS)
        return true;
    if (frame.msg.size() < wrap_ts::least_frame)
        return false;
    const uint32_t seconds = load_be32(frame.msg, wrap_ts::seconds);
    const uint32_t fraction = load_be16(frame.msg, wrap_ts::fraction);
    frame.generation_time = {.seconds = seconds, .milliseconds = fraction * 1000 >> 16};
    dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                 "MSG_WRAP_TS timestamp seconds:%d timestamp frac:%d (%d milliseconds)",
                 static_cast<int>(seconds), static_cast<int>(fraction),
                 static_cast<int>(frame.generation_time.milliseconds));
    frame.msg = frame.msg.subspan(wrap_ts::size);
    return true;
}
static_assert(wrap_ts::least_frame >= wrap_ts::size + msgGeneric_t::size);

// Sends the frame back as it came, the timestamp envelope included.
static void echo_ping(link_frame& frame)
{
    const uint8_t* mac = frame.client.mac_addr;
    if (dbg_is_wanted(DBG_PARSING))
        dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                     "MSG_PING %02x MAC : %s", *frame.seq_no(), octets_mac_text{mac}.c_str());
    data_to_win_client(&frame.server, frame.client.id, frame.client.pending_data,
                       frame.client.pending_data_size);
}

// Moves the flag bits from the type into the frame's record, and prepares the ack.
static void take_flags(link_frame& frame)
{
    store_le16(frame.ack, gwMsgAck_t::msgType, MSG_REST_ACK);
    frame.ack[gwMsgAck_t::seqNo] = *frame.seq_no();

    const uint16_t flagged = load_le16(frame.msg, msgGeneric_t::msgType);
    frame.ack_requested = (flagged & msg_flag_ack_requested) != 0;
    frame.direct_mask = (flagged & msg_flag_direct_mask) != 0;
    frame.type = static_cast<uint16_t>(flagged & ~(msg_flag_ack_requested | msg_flag_direct_mask));
    store_le16(frame.msg, msgGeneric_t::msgType, frame.type);
}

// Registers the node that a bridge has heard: `trailer` is its MAC, then its address. Otherwise what becomes of
// the message.
static std::optional<message_outcome> register_forwarded_node(link_frame& frame, const uint8_t* trailer)
{
    const nodes_guard guard{frame.nodes};
    NODE_t* node = frame.nodes.find_or_create_by_mac(trailer + nwk_data_ind::trailer_mac, nullptr);
    if (!node)
        return frame.refusal_locked();
    frame.note_locked(frame.news_of_envelope, frame.has_envelope_news, *node, frame.change_route);
    node->direct_mask = frame.direct_mask;
    frame.nodes.set_lifetime(*node, node_lifetime);
    node->last_activity = frame.activity();
    move_route_locked(frame, *node);
    if (frame.change_route)
        frame.nodes.set_address(*node, trailer + nwk_data_ind::trailer_ip, true);
    return std::nullopt;
}

// Takes a 15.4 envelope off. Otherwise what becomes of the message: its size is wrong, or its node cannot be
// registered.
static std::optional<message_outcome> unwrap_forwarded(link_frame& frame)
{
    if (frame.type != MSG_NWK_DATA_15_4_IND && frame.type != MSG_TRF2SRV_VIA_CLIENT)
        return std::nullopt;
    frame.kind =
        frame.type == MSG_TRF2SRV_VIA_CLIENT ? message_type::trf2srv_via_client : message_type::nwk_data_ind;
    if (frame.msg.size() < nwk_data_ind::least_size)
        return message_outcome::wrong_size;
    const size_t inner_size = load_le16(frame.msg, msgHeader_t::total_len);
    if (frame.msg.size() != inner_size + nwk_data_ind::overhead)
        return message_outcome::wrong_size;
    frame.change_route = frame.type != MSG_TRF2SRV_VIA_CLIENT;
    if (const auto refusal = register_forwarded_node(frame, &frame.msg[nwk_data_ind::inner + inner_size]))
        return refusal;

    frame.msg = frame.msg.subspan(nwk_data_ind::inner);
    frame.msg_is_forwarded = true;
    // The inner ack bit is dropped without being an ack request: the envelope's counts. The other flag
    // bit stays, and keeps the message from being dispatched.
    const uint16_t flagged = load_le16(frame.msg, msgGeneric_t::msgType);
    frame.type = static_cast<uint16_t>(flagged & ~msg_flag_ack_requested);
    store_le16(frame.msg, msgGeneric_t::msgType, frame.type);
    return std::nullopt;
}
static_assert(nwk_data_ind::least_size > nwk_data_ind::inner + msgGeneric_t::size);

// Sends the ack that the sender has asked for, if its address is known.
static void acknowledge(link_frame& frame)
{
    if (!frame.ack_requested || !frame.ack_dst_known)
        return;
    if (data_to_bridge(frame.server, frame_bytes(frame.client.id), frame.ack) <= delivery::cached)
        frame.server.counts.acknowledgements.add();
}

namespace {

struct verdict {
    message_outcome outcome;
    bool is_accepted = false;
};

} // namespace

static verdict interpret(link_frame& frame)
{
    frame.kind = message_type::wrap_ts;
    if (!unwrap_timestamp(frame))
        return {message_outcome::wrong_size};
    // Compared with its flag bits, too: only a plain ping is echoed.
    if (load_le16(frame.msg, msgGeneric_t::msgType) == MSG_PING) {
        frame.kind = message_type::ping;
        echo_ping(frame);
        return {message_outcome::answered, true};
    }
    take_flags(frame);
    if (const auto refusal = unwrap_forwarded(frame))
        return {*refusal};
    const message_outcome outcome = dispatch(frame);
    if (outcome == message_outcome::wrong_size)
        return {outcome};
    acknowledge(frame);
    return {outcome, true};
}

// Out of the way of what every message runs through.
[[gnu::noinline, gnu::cold]] static void tap_node_news(const link_frame& frame)
{
    const uint32_t connection = connection_number(frame_bytes(frame.client.id));
    if (frame.has_envelope_news)
        frame.news_of_envelope.publish(frame.server.tap, connection);
    if (frame.has_news)
        frame.news.publish(frame.server.tap, connection);
}

// The one place where messages are counted: each once.
bool process_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client)
{
    if (any_null(__func__, server, client) || any_null(__func__, server->nodes()))
        return false;
    if (!client->pending_data || client->pending_data_size < msgGeneric_t::size) {
        server->counts.note(message_type::none, message_outcome::too_short);
        return false;
    }
    const tav_timestamp_t now = server->event_time ? *server->event_time : get_current_time();
    link_frame frame{
        .server = *server,
        .client = *client,
        .nodes = *server->nodes(),
        .msg = {client->pending_data.get(), client->pending_data_size},
        .type = 0,
        .kind = message_type::none,
        .input_time = now,
        .generation_time = now,
    };
    const verdict found = interpret(frame);
    if (frame.has_envelope_news || frame.has_news) [[unlikely]]
        tap_node_news(frame);
    server->counts.note(frame.kind, found.outcome);
    return found.is_accepted;
}

} // namespace rtls
