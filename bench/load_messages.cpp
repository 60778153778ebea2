#include "load_messages.h"

#include "base/hex.h"
#include "wire/messaging.h"
#include "wire/slip.h"

namespace rtls::load {

namespace {

// In a payload: two bytes that are a sub-command in generic requests, the time, the number.
constexpr size_t stamp_at = 2;
constexpr size_t number_at = 10;
constexpr size_t least_payload = 14;
constexpr uint8_t filling = 0x5A;
constexpr uint16_t sub_command = 0x7777; // one that the gateway hands on as it is
constexpr size_t command_payload = 16;

using hb = gwMsgHeartbeat_t;

} // namespace

static uint64_t load_be64(std::span<const uint8_t> bytes, size_t at)
{
    return uint64_t{load_be32(bytes, at)} << 32 | load_be32(bytes, at + 4);
}

static void store_le32(std::span<uint8_t> bytes, size_t at, uint32_t value)
{
    store_le16(bytes, at, static_cast<uint16_t>(value));
    store_le16(bytes, at + 2, static_cast<uint16_t>(value >> 16));
}

static void store_be64(std::span<uint8_t> bytes, size_t at, uint64_t value)
{
    store_be32(bytes, at, static_cast<uint32_t>(value >> 32));
    store_be32(bytes, at + 4, static_cast<uint32_t>(value));
}

std::array<uint8_t, 8> bridge_mac(size_t bridge)
{
    return {
        0x02, 0xAB, 0x34, 0xCD, 0x57, 0x00, static_cast<uint8_t>(bridge >> 8), static_cast<uint8_t>(bridge)};
}

// Of the node that the bridge forwards for.
static std::array<uint8_t, 8> behind_mac(size_t bridge)
{
    auto mac = bridge_mac(bridge);
    mac[5] = 1;
    return mac;
}

std::array<uint8_t, 16> bridge_ip(size_t bridge)
{
    std::array<uint8_t, 16> ip{0xFD, 0, 0, 0, 0, 0, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55};
    ip[14] = static_cast<uint8_t>(bridge >> 8);
    ip[15] = static_cast<uint8_t>(bridge);
    return ip;
}

static std::array<uint8_t, 16> behind_ip(size_t bridge)
{
    auto ip = bridge_ip(bridge);
    ip[13] = 1;
    return ip;
}

message heartbeat(size_t bridge, uint8_t seq, mark what)
{
    message m(hb::size);
    store_le16(m, hb::header, MSG_HEARTBEAT_IND);
    m[msgHeader_t::seqNo] = seq;
    m[hb::reporting_freq] = 255;
    m[hb::node_role] = NR_BRIDGE;
    store_bytes(m, hb::long_addr, bridge_mac(bridge));
    store_le32(m, hb::sw_version, what.number);
    store_le32(m, hb::pos_X, static_cast<uint32_t>(what.sent_ns >> 32));
    store_le32(m, hb::pos_Y, static_cast<uint32_t>(what.sent_ns));
    store_bytes(m, hb::bridge_mac, bridge_mac(bridge));
    store_bytes(m, hb::ipaddr, bridge_ip(bridge));
    return m;
}

// Without what follows the payload.
static message report(uint16_t type, uint8_t seq, mark what, size_t payload_size)
{
    message m(msgHeader_t::size + payload_size, filling);
    store_le16(m, msgHeader_t::msgType, type);
    m[msgHeader_t::seqNo] = seq;
    store_le16(m, msgHeader_t::total_len, static_cast<uint16_t>(payload_size));
    store_be16(m, msgHeader_t::size, sub_command);
    store_be64(m, msgHeader_t::size + stamp_at, what.sent_ns);
    store_be32(m, msgHeader_t::size + number_at, what.number);
    return m;
}

static void append(message& m, std::span<const uint8_t> bytes)
{
    m.insert(m.end(), bytes.begin(), bytes.end());
}

message sensor(size_t bridge, uint8_t seq, mark what, size_t payload_size)
{
    message m = report(MSG_SENSOR_IND_NEW, seq, what, payload_size);
    append(m, bridge_ip(bridge));
    return m;
}

static message in_envelope(std::span<const uint8_t> inner, size_t bridge)
{
    message m(msgHeader_t::size);
    store_le16(m, msgHeader_t::msgType, MSG_NWK_DATA_15_4_IND);
    store_le16(m, msgHeader_t::total_len, static_cast<uint16_t>(inner.size()));
    append(m, inner);
    append(m, behind_mac(bridge));
    append(m, behind_ip(bridge));
    return m;
}

message heartbeat_behind(size_t bridge)
{
    message inner = heartbeat(bridge, 0xFF, {}); // 0 counts as a repeat
    inner[hb::node_role] = NR_MOBILE;
    store_bytes(inner, hb::long_addr, behind_mac(bridge));
    return in_envelope(std::span{inner}.first(hb::bridge_mac), bridge);
}

message mixed(size_t bridge, uint8_t seq, mark what, size_t payload_size)
{
    const uint32_t turn = what.number % 10;
    const uint16_t flag = turn == 0 || turn == 5 ? msg_flag_ack_requested : uint16_t{0};
    if (turn >= 8) {
        message m = heartbeat(bridge, seq, what);
        store_le16(m, hb::header, static_cast<uint16_t>(MSG_HEARTBEAT_IND | flag));
        return m;
    }
    const uint16_t type = turn % 2 == 0 ? MSG_SENSOR_IND_NEW : MSG_GENERIC_SERVER_REQ;
    message m = report(static_cast<uint16_t>(type | flag), seq, what, payload_size);
    if (turn >= 1 && turn <= 3)
        return in_envelope(m, bridge);
    append(m, bridge_ip(bridge));
    return m;
}

// --- how it leaves

static bool is_in_envelope(const message& sent)
{
    return load_le16(sent, msgHeader_t::msgType) == MSG_NWK_DATA_15_4_IND;
}

static message handed_heartbeat(const message& sent)
{
    message m(sent.begin(), sent.begin() + hb::ipaddr);
    store_be16(m, hb::header, MSG_HEARTBEAT_IND);
    for (const size_t at : {hb::sw_version, hb::pos_X, hb::pos_Y, hb::pos_Z})
        store_be32(m, at, load_le32(sent, at));
    return m;
}

// The address at the end becomes the node's MAC.
static message handed_report(std::span<const uint8_t> report, std::span<const uint8_t> mac)
{
    const auto payload = load_le16(report, msgHeader_t::total_len);
    message m(report.begin(), report.begin() + msgHeader_t::size + payload);
    const auto type =
        static_cast<uint16_t>(load_le16(report, msgHeader_t::msgType) & ~unsigned{msg_flag_ack_requested});
    store_be16(m, msgHeader_t::msgType, type);
    store_be16(m, msgHeader_t::total_len, payload);
    append(m, mac);
    return m;
}

message handed_on(subject by, const message& sent)
{
    if (by == subject::relay)
        return sent;
    if ((load_le16(sent, msgHeader_t::msgType) & ~unsigned{msg_flag_ack_requested}) == MSG_HEARTBEAT_IND)
        return handed_heartbeat(sent);
    const std::span<const uint8_t> report =
        std::span{sent}.subspan(is_in_envelope(sent) ? size_t{msgHeader_t::size} : 0);
    const size_t bridge = load_be16(sent, sent.size() - 2); // of its address
    return handed_report(report, is_in_envelope(sent) ? behind_mac(bridge) : bridge_mac(bridge));
}

static mark mark_in_payload(std::span<const uint8_t> handed, size_t header)
{
    return {load_be64(handed, header + stamp_at), load_be32(handed, header + number_at)};
}

static std::optional<mark> mark_of_relayed(std::span<const uint8_t> m)
{
    const uint16_t type = load_le16(m, 0) & 0x0FFF;
    if (type == MSG_HEARTBEAT_IND && m.size() == hb::size)
        return mark{uint64_t{load_le32(m, hb::pos_X)} << 32 | load_le32(m, hb::pos_Y),
                    load_le32(m, hb::sw_version)};
    const size_t header = msgHeader_t::size * (type == MSG_NWK_DATA_15_4_IND ? 2 : 1);
    if (m.size() < header + least_payload)
        return std::nullopt;
    return mark_in_payload(m, header);
}

std::optional<mark> mark_of(subject by, std::span<const uint8_t> handed)
{
    if (handed.size() < msgHeader_t::size + least_payload)
        return std::nullopt;
    if (by == subject::relay)
        return mark_of_relayed(handed);
    if (load_be16(handed, 0) == MSG_HEARTBEAT_IND)
        return mark{load_be64(handed, hb::pos_X), load_be32(handed, hb::sw_version)};
    return mark_in_payload(handed, msgHeader_t::size);
}

// --- commands

std::string command(size_t bridge, mark what)
{
    message m(msgHeader_t::size + command_payload, filling);
    store_be16(m, msgHeader_t::msgType, MSG_GENERIC_REQ);
    m[msgHeader_t::seqNo] = static_cast<uint8_t>(what.number);
    store_be16(m, msgHeader_t::total_len, command_payload);
    store_be64(m, msgHeader_t::size + stamp_at, what.sent_ns);
    store_be32(m, msgHeader_t::size + number_at, what.number);
    append(m, bridge_mac(bridge));
    return to_hex(m);
}

std::optional<mark> mark_of_command(std::span<const uint8_t> m)
{
    if (m.size() < msgHeader_t::size + command_payload)
        return std::nullopt;
    // The gateway turns the type round, the relay does not.
    if (load_le16(m, 0) != MSG_GENERIC_REQ && load_be16(m, 0) != MSG_GENERIC_REQ)
        return std::nullopt;
    return mark_in_payload(m, msgHeader_t::size);
}

message framed(bytes_view m)
{
    message out(slip_encoded_limit(m.size()));
    out.resize(slip_encode(m, out.data()));
    return out;
}

} // namespace rtls::load
