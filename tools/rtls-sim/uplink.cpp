#include "rtls-sim/uplink.h"

#include <fmt/format.h>

namespace sim {

std::string_view kind_name(kind k)
{
    static constexpr std::array<std::string_view, kinds> names = {
        "ping",   "prefix request", "root announcement", "heartbeat", "node announcement", "sensor report",
        "ranges", "ul-tdoa",        "route request",     "generic",   "ota page request"};
    return k < kind::count ? names[static_cast<size_t>(k)] : "unknown";
}

static std::string as_text(const bytes& content)
{
    return {content.begin(), content.end()};
}

// The six bytes of a MAC that generic payloads carry.
static view six(const mac_bytes& mac)
{
    return view{mac}.last(6);
}

static std::string six_text(const mac_bytes& mac)
{
    std::string text;
    for (uint8_t byte : six(mac))
        text += fmt::format("{:02x}", byte);
    return text;
}

uplink_message make_ping(const mac_bytes& bridge, uint8_t seq, view payload)
{
    return {kind::ping,   bridge, seq, writer{}.le16(code(msg::ping)).u8(seq).raw(payload).take(),
            outlet::none, {}};
}

uplink_message make_prefix_request(const mac_bytes& bridge, uint8_t seq)
{
    bytes body = writer{}.le16(code(msg::prefix_request)).u8(seq).raw(bridge).take();
    return {kind::prefix_request, bridge, seq, std::move(body), outlet::none, {}};
}

uplink_message make_root_announce(const mac_bytes& bridge, uint8_t seq, uint16_t prefix, uint8_t version)
{
    bytes body = writer{}.le16(code(msg::root_announce)).u8(seq).raw(bridge).le16(prefix).u8(version).take();
    // The version is the network's own affair: it ends at the gateway.
    const bytes content = writer{}.be16(code(msg::root_announce)).u8(seq).raw(bridge).be16(prefix).take();
    return {kind::root_announce, bridge, seq, std::move(body), outlet::handler, as_text(content)};
}

uplink_message make_heartbeat(kind type, const vital_signs& signs, uint8_t seq, const mac_bytes& via)
{
    const uint16_t number = code(type == kind::heartbeat ? msg::heartbeat : msg::node_announce);
    const auto role_and_state = static_cast<uint8_t>((signs.role & 0x0F) | (signs.state & 0xF0));
    const auto common = [&](writer& out) -> writer& {
        return out.u8(seq)
            .u8(signs.reporting_freq)
            .u8(signs.ranging_freq)
            .u8(role_and_state)
            .u8(signs.sublocation)
            .raw(signs.mac)
            .raw(signs.parent);
    };
    const auto x = static_cast<uint32_t>(signs.x);
    const auto y = static_cast<uint32_t>(signs.y);
    const auto z = static_cast<uint32_t>(signs.z);
    writer link;
    common(link.le16(number)).le32(signs.sw_version).le32(x).le32(y).le32(z);
    writer upstream;
    common(upstream.be16(number)).be32(signs.sw_version).be32(x).be32(y).be32(z).raw(via);
    return {type, signs.mac, seq, link.take(), outlet::handler, as_text(upstream.take())};
}

// A message with a header, whose copy upstream ends with the node's MAC.
static uplink_message with_header(kind k, msg type, const mac_bytes& node, uint8_t seq, view payload)
{
    const auto size = static_cast<uint16_t>(payload.size());
    bytes body = writer{}.le16(code(type)).u8(seq).le16(size).raw(payload).take();
    const bytes content = writer{}.be16(code(type)).u8(seq).be16(size).raw(payload).raw(node).take();
    return {k, node, seq, std::move(body), outlet::handler, as_text(content)};
}

static uplink_message for_proxy(uplink_message message, std::string content)
{
    message.to = outlet::proxy_input;
    message.content = std::move(content);
    return message;
}

uplink_message make_sensor(const mac_bytes& node, uint8_t seq, view payload)
{
    return with_header(kind::sensor, msg::sensor_report, node, seq, payload);
}

uplink_message make_range(const mac_bytes& node, uint8_t seq, std::span<const range_entry> entries,
                          const report_stamp& stamp)
{
    writer payload;
    payload.be16(code(sub::range_report));
    for (const range_entry& entry : entries)
        payload.be16(entry.peer).be32(entry.distance).be16(entry.quality);
    payload.raw(encode_range_stamp(stamp));
    return with_header(kind::range, msg::generic_up, node, seq, payload.take());
}

uplink_message make_ul_tdoa(const mac_bytes& node, uint8_t seq, const tdoa_sample& s, tdoa_form form)
{
    writer payload;
    payload.be16(code(sub::ul_tdoa)).raw(six(s.tag)).be16(s.pe_seq_no).raw(six(s.responder));
    payload.raw(six(s.reporter)).be32(static_cast<uint32_t>(s.range_mm)).u8(s.tag_lqi).u8(s.responder_lqi);
    payload.u8(s.board_version).u8(s.board_revision).be16(s.flags).be32(s.firmware_id).be16(s.battery);
    payload.u8(s.charge);
    bytes full = payload.take();
    full.resize(static_cast<size_t>(form));

    std::string text =
        fmt::format(R"("ul_tdoa_data":{{"pe_seq_no":{},"range_mm":{},"tag":{{"mac":"{}","lqi":{}}},)"
                    R"("responder":{{"mac":"{}","lqi":{}}},"reporter":{{"mac":"{}"}})",
                    s.pe_seq_no, s.range_mm, six_text(s.tag), s.tag_lqi, six_text(s.responder),
                    s.responder_lqi, six_text(s.reporter));
    if (form != tdoa_form::bare)
        text += fmt::format(
            R"(,"board_version":{},"board_revision":{},"flags":"{:X}","firmware_id":"{:X}","batt_voltage":{})",
            s.board_version, s.board_revision, s.flags, s.firmware_id, s.battery);
    if (form == tdoa_form::with_charge)
        text += fmt::format(R"(,"percent_of_charge":{})", s.charge);
    return for_proxy(with_header(kind::ul_tdoa, msg::generic_up, node, seq, full), text + "}");
}

uplink_message make_route(const mac_bytes& node, uint8_t seq, const mac_bytes& reporter,
                          std::span<const route_neighbour> neighbours)
{
    writer payload;
    payload.be16(code(sub::route_request)).raw(six(reporter)).be16(0);
    std::string text =
        fmt::format(R"("route_request":{{"reporter":{{"mac":"{}"}},"requester":[)", six_text(reporter));
    for (const route_neighbour& neighbour : neighbours) {
        payload.raw(six(neighbour.mac)).u8(0).u8(neighbour.lqi);
        text += fmt::format(R"({}{{"mac":"{}","lqi":{:3}}})", &neighbour == neighbours.data() ? "" : ",",
                            six_text(neighbour.mac), neighbour.lqi);
    }
    return for_proxy(with_header(kind::route, msg::generic_up, node, seq, payload.take()), text + "]}");
}

uplink_message make_generic(const mac_bytes& node, uint8_t seq, uint16_t command, view rest)
{
    return with_header(kind::generic, msg::generic_up, node, seq, writer{}.be16(command).raw(rest).take());
}

uplink_message make_ota_page_request(const mac_bytes& node, uint8_t seq, const ota_page_id& id)
{
    writer payload;
    payload.be16(code(sub::ota_page)).be32(id.git_id).be32(id.crc).be16(id.page_size).be16(id.page);
    uplink_message request = with_header(kind::ota_page, msg::generic_up, node, seq, payload.take());
    request.to = outlet::none; // it goes on to the servers only when the gateway has no such page
    return request;
}

bool has_trailer(kind k)
{
    return k != kind::ping && k != kind::prefix_request && k != kind::root_announce;
}

bool names_bridge(kind k)
{
    return k == kind::heartbeat || k == kind::node_announce;
}

bytes sent_directly(const uplink_message& message, const mac_bytes& bridge, const ip_bytes& ip)
{
    writer out;
    out.raw(message.body);
    if (names_bridge(message.kind))
        out.raw(bridge);
    if (has_trailer(message.kind))
        out.raw(ip);
    return out.take();
}

bytes sent_forwarded(const uplink_message& message, msg envelope, uint8_t envelope_seq, const ip_bytes& ip)
{
    const auto size = static_cast<uint16_t>(message.body.size());
    writer out;
    out.le16(code(envelope)).u8(envelope_seq).le16(size).raw(message.body).raw(message.from).raw(ip);
    return out.take();
}

void set_flags(bytes& message, uint16_t flags)
{
    message[1] = static_cast<uint8_t>(message[1] | flags >> 8); // types travel low byte first
}

bytes sent_with_time(view message, uint8_t seq, const generation_time& time)
{
    const auto size = static_cast<uint16_t>(message.size());
    writer out;
    out.le16(code(msg::wrap_ts)).u8(seq).le16(size).be32(time.seconds).be16(time.fraction).raw(message);
    return out.take();
}

} // namespace sim
