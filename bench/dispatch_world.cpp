#include "dispatch_world.h"

#include "firmware/ota.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "uplink/messages.h"
#include "wire/messaging.h"

#include <cstring>

namespace rtls {

static const bytes_t sender_ip = hex("FE 80 00 00 00 00 00 00 00 A2 A3 A4 00 00 00 00"); // of node 0
static const bytes_t sender_mac = hex("E4 A2 A3 A4 00 00 00 00");
static const bytes_t bridge_mac = hex("AB CD EF 01 2A BC DE 3F");

static zsock_t* new_peer(zsock_t* server_sock)
{
    const std::string endpoint = unused_endpoint();
    zsock_t* peer = zsock_new_pull(("@" + endpoint).c_str());
    zsock_connect(server_sock, "%s", endpoint.c_str());
    return peer;
}

dispatch_world::dispatch_world(size_t bridges)
    : bridged_gateway(bridges), m_handler(new_peer(server().msg_handler_sock)),
      m_proxy(new_peer(server().proxy_input_sock))
{
    server().rpl_timer_is_active = true; // PANID requests only leave a note
}

dispatch_world::~dispatch_world()
{
    zsock_destroy(&m_handler);
    zsock_destroy(&m_proxy);
}

void dispatch_world::introduce(size_t count)
{
    const nodes_guard guard{*nodes()};
    bytes_t mac = sender_mac;
    bytes_t ip = sender_ip;
    for (uint32_t i = 0; i < count; i++) {
        store_be32(mac, 4, i);
        store_be32(ip, 12, i);
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), mac.data(), nullptr, 0);
        nodes_container_set_address(nodes(), node, ip.data(), false);
        node_update_win_client_ID(node, record(0).id);
    }
}

void dispatch_world::keep_page()
{
    const bytes_t page = ramp(128);
    ota_set_firmware_page(rtls_gateway_get_ota(handle()), 1, 2, 128, 0, page.data());
}

bool dispatch_world::receive(const bytes_t& frame)
{
    WIN_CLIENT_t& bridge = record(0);
    std::memcpy(bridge.pending_data, frame.data(), frame.size());
    bridge.pending_data_size = frame.size();
    return process_data_from_win_client(&server(), &bridge);
}

static size_t empty(zsock_t* peer)
{
    size_t messages = 0;
    zmq_msg_t part;
    zmq_msg_init(&part);
    while (zmq_msg_recv(&part, zsock_resolve(peer), ZMQ_DONTWAIT) >= 0)
        messages += !zmq_msg_more(&part);
    zmq_msg_close(&part);
    return messages;
}

bool dispatch_world::take(size_t expected)
{
    const size_t taken = empty(m_handler) + empty(m_proxy);
    return taken <= expected && take_from_bridges(expected - taken);
}

// --- frames; `seq` is set for each run

static bytes_t be16(unsigned value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

static bytes_t le16(unsigned value)
{
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

static bytes_t header(unsigned type, size_t total_len)
{
    return le16(type) + bytes_t{0} + le16(static_cast<unsigned>(total_len));
}

static bytes_t heartbeat_body(unsigned type)
{
    return le16(type) + hex("00 0A 14 52 07") + sender_mac + hex("B1 B2 B3 B4 B5 B6 B7 B8  04 03 02 01") +
           hex("D2 04 00 00  FE FF FF FF  34 12 FD FF");
}

static bytes_t heartbeat(unsigned type)
{
    return heartbeat_body(type) + bridge_mac + sender_ip;
}

static bytes_t with_payload(unsigned type, const bytes_t& payload)
{
    return header(type, payload.size()) + payload;
}

static bytes_t generic(unsigned code, size_t body_size)
{
    return with_payload(MSG_GENERIC_SERVER_REQ, be16(code) + ramp(body_size));
}

static bytes_t direct(const bytes_t& message)
{
    return message + sender_ip;
}

static bytes_t forwarded(const bytes_t& inner)
{
    return header(MSG_NWK_DATA_15_4_IND, inner.size()) + inner + sender_mac + sender_ip;
}

static const bytes_t page_request =
    with_payload(MSG_GENERIC_SERVER_REQ, hex("00 10 00 00 00 01 00 00 00 02 00 80 00 00"));

bytes_t plain_heartbeat()
{
    return heartbeat(MSG_HEARTBEAT_IND);
}

bytes_t direct_sensor_report()
{
    return direct(with_payload(MSG_SENSOR_IND_NEW, ramp(40)));
}

std::vector<frame_case> frame_cases()
{
    constexpr size_t inner_seq = nwk_data_ind::inner + msgHeader_t::seqNo;
    return {
        {"heartbeat", heartbeat(MSG_HEARTBEAT_IND), 2, 1},
        {"heartbeat, ack", heartbeat(MSG_HEARTBEAT_IND | msg_flag_ack_requested), 2, 2},
        {"heartbeat, forwarded", forwarded(heartbeat_body(MSG_HEARTBEAT_IND)), inner_seq, 1},
        {"node announcement", heartbeat(MSG_NODE_ANNOUNCE_IND), 2, 1},
        {"root announcement", le16(MSG_ANNOUNCE_ROOT_IND) + bytes_t{0} + bridge_mac + hex("34 12 F1"), 2, 1},
        {"PANID request, timer active", le16(MSG_PANID_REQ) + bytes_t{0} + bridge_mac, 2, 0},
        {"ping", hex("00 00 00 01 02 03 04 05 06 07"), 2, 1},
        {"sensor, direct", direct(with_payload(MSG_SENSOR_IND_NEW, ramp(40))), 2, 1},
        {"sensor, forwarded", forwarded(with_payload(MSG_SENSOR_IND_NEW, ramp(40))), inner_seq, 1},
        {"generic, direct", direct(generic(GENERIC_REQ_OtaApply, 40)), 2, 1},
        {"generic, forwarded", forwarded(generic(GENERIC_REQ_OtaApply, 40)), inner_seq, 1},
        {"generic, largest", forwarded(generic(GENERIC_REQ_OtaApply, 400)), inner_seq, 1},
        {"UL-TDOA", forwarded(generic(GENERIC_REQ_UltdoaData, 37)), inner_seq, 1},
        {"route request, 16 requesters", forwarded(generic(GENERIC_REQ_RouteRequest, 136)), inner_seq, 1},
        {"range report, 16 entries", forwarded(generic(GENERIC_REQ_RangeRpt, 128)), inner_seq, 1},
        {"OTA page, 128 bytes", forwarded(page_request), inner_seq, 1},
        {"type without action", hex("05 01 00"), 2, 0},
    };
}

} // namespace rtls
