#include "support/bridge_message_fixture.h"
#include "uplink/messages.h"

#include "base/hex.h"
#include "registry/nodes_container.h"
#include "support/sock.h"

#include <cstdlib>
#include <cstring>

namespace rtls {

static constexpr char bridge_id[] = "0011223344";
static constexpr char other_bridge_id[] = "0011223355";

// --- messages

bytes_t le16(unsigned value)
{
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

bytes_t heartbeat_body(const heartbeat_options& options)
{
    return le16(options.type) + bytes_t{options.seq, options.reporting_freq} + // and what follows it:
           hex("14 52 07") +                                                   // ranging, role, sub-location
           hex(options.mac) + hex("B1 B2 B3 B4 B5 B6 B7 B8") +                 // its parent
           hex("04 03 02 01") +                                                // software version
           hex("D2 04 00 00  FE FF FF FF  34 12 FD FF");                       // position
}

bytes_t heartbeat(const heartbeat_options& options)
{
    return heartbeat_body(options) + hex(bridge_mac) + hex(sender_ip);
}

bytes_t panid_req(uint8_t seq, const std::string& mac)
{
    return le16(MSG_PANID_REQ) + bytes_t{seq} + hex(mac);
}

bytes_t announce_root(uint8_t seq, const std::string& mac)
{
    return le16(MSG_ANNOUNCE_ROOT_IND) + bytes_t{seq} + hex(mac) + hex("34 12 F1");
}

bytes_t payload_message(unsigned type, uint8_t seq, const bytes_t& payload)
{
    return le16(type) + bytes_t{seq} + le16(static_cast<unsigned>(payload.size())) + payload;
}

bytes_t generic_req(uint8_t seq, uint16_t sub_command, const bytes_t& body)
{
    const bytes_t code{static_cast<uint8_t>(sub_command >> 8), static_cast<uint8_t>(sub_command)};
    return payload_message(MSG_GENERIC_SERVER_REQ, seq, code + body);
}

bytes_t envelope(const bytes_t& inner, const std::string& mac, unsigned type, uint8_t seq,
                 const std::string& ip)
{
    return payload_message(type, seq, inner) + hex(mac) + hex(ip);
}

bytes_t with_timestamp(const bytes_t& message, const std::string& seconds_and_fraction)
{
    return hex("00 02 77") + le16(static_cast<unsigned>(message.size() + 6)) + hex(seconds_and_fraction) +
           message;
}

// --- the daemon

static zsock_t* new_peer(lent<zsock_ptr>& server_sock)
{
    const std::string endpoint = new_endpoint();
    zsock_t* peer = zsock_new_pull(("@" + endpoint).c_str());
    server_sock.reset(zsock_new_push((">" + endpoint).c_str()));
    return peer;
}

bridge_message_fixture::bridge_message_fixture()
    : bridge(add_bridge(bridge_id)), other_bridge(add_bridge(other_bridge_id)),
      m_handler(new_peer(server->msg_handler_sock)), m_proxy(new_peer(server->proxy_input_sock))
{
    server->actor_loop.reset(zloop_new());
}

bridge_message_fixture::~bridge_message_fixture()
{
    server->actor_loop.reset();
    server->msg_handler_sock.reset();
    server->proxy_input_sock.reset();
    zsock_destroy(&m_handler);
    zsock_destroy(&m_proxy);
}

bool bridge_message_fixture::receive(const bytes_t& frame, WIN_CLIENT_t* from)
{
    from->pending_data.reset(static_cast<uint8_t*>(malloc(frame.size())));
    from->pending_data_size = from->pending_buffsize = frame.size();
    if (!frame.empty())
        std::memcpy(from->pending_data, frame.data(), frame.size());
    return process_data_from_win_client(server, from);
}

// The next part, if one waits.
static std::optional<std::string> receive_part(zsock_t* peer)
{
    std::optional<std::string> text;
    zmq_msg_t part;
    zmq_msg_init(&part);
    if (zmq_msg_recv(&part, zsock_resolve(peer), ZMQ_DONTWAIT) >= 0)
        text.emplace(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
    zmq_msg_close(&part);
    return text;
}

static std::string as_hex(const std::string& text)
{
    return to_hex({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

texts_t bridge_message_fixture::reports()
{
    texts_t reports;
    while (receive_part(m_handler)) // the time
        reports.push_back(as_hex(receive_part(m_handler).value_or("")));
    return reports;
}

texts_t bridge_message_fixture::times_of_reports()
{
    texts_t times;
    while (const auto time = receive_part(m_handler)) {
        times.push_back(as_hex(*time));
        (void)receive_part(m_handler);
    }
    return times;
}

texts_t bridge_message_fixture::management_texts()
{
    static const std::string head = "@win_management {\"ts\":";
    static const size_t head_size = head.size() + 10 + sizeof ",\"ms\":" - 1 + 3 + 1;
    texts_t texts;
    while (const auto line = receive_part(m_proxy)) {
        const bool framed = line->size() > head_size && line->starts_with(head) && line->ends_with("}");
        texts.push_back(framed ? line->substr(head_size, line->size() - head_size - 1)
                               : "unframed: " + *line);
    }
    return texts;
}

const NODE_t* bridge_message_fixture::node(const std::string& mac)
{
    const nodes_guard guard{*nodes};
    return nodes_container_find_by_mac(nodes, hex(mac).data());
}

size_t bridge_message_fixture::node_count()
{
    const nodes_guard guard{*nodes};
    return nodes_container_get_size(nodes);
}

std::string bridge_message_fixture::route_of(const std::string& mac)
{
    const nodes_guard guard{*nodes};
    const NODE_t* found = nodes_container_find_by_mac(nodes, hex(mac).data());
    if (!found || !found->win_client_id)
        return "";
    return to_hex({zframe_data(found->win_client_id.get()), zframe_size(found->win_client_id.get())});
}

void bridge_message_fixture::introduce(const std::string& mac, const std::string& ip)
{
    const nodes_guard guard{*nodes};
    NODE_t* made = nodes_container_find_or_create_by_mac(nodes, hex(mac).data(), nullptr, 0);
    nodes_container_set_address(nodes, made, hex(ip).data(), false);
    node_update_win_client_ID(made, bridge->id);
}

} // namespace rtls
