// uplink - the messages that nodes and bridges send up, and what must become of each upstream.
//
// Every builder makes two things from the same values: the bytes for the link, and the content that has
// to arrive at the message handler or at the proxy input. The second is not derived from the first.
// Threads    Any; nothing is kept. Nothing fails.
#pragma once

#include "rtls-sim/wire.h"

#include <string>

namespace sim {

enum class kind : uint8_t {
    ping,
    prefix_request,
    root_announce,
    heartbeat,
    node_announce,
    sensor,
    range,
    ul_tdoa,
    route,
    generic,
    ota_page,
    count
};
constexpr size_t kinds = static_cast<size_t>(kind::count);
std::string_view kind_name(kind k);

// Where a message has to turn up.
enum class outlet : uint8_t { none, handler, proxy_input };

struct uplink_message {
    sim::kind kind;
    mac_bytes from; // the device that reports
    uint8_t seq;
    bytes body; // the message, without the trailer that its way up asks for
    outlet to = outlet::none;
    std::string content; // expected there
};

// What a heartbeat or a node announcement says.
struct vital_signs {
    uint8_t reporting_freq = 60; // the gateway keeps a node for five times this many seconds
    uint8_t ranging_freq = 5;
    uint8_t role = 0;  // low nibble
    uint8_t state = 0; // high nibble, already in place
    uint8_t sublocation = 0;
    mac_bytes mac{};
    mac_bytes parent{};
    uint32_t sw_version = 0;
    int32_t x = 0;
    int32_t y = 0;
    int32_t z = 0;
};

struct tdoa_sample {
    mac_bytes tag{}; // of these MACs, the last six bytes travel
    uint16_t pe_seq_no = 0;
    mac_bytes responder{};
    mac_bytes reporter{};
    int32_t range_mm = 0;
    uint8_t tag_lqi = 0;
    uint8_t responder_lqi = 0;
    uint8_t board_version = 0;
    uint8_t board_revision = 0;
    uint16_t flags = 0;
    uint32_t firmware_id = 0;
    uint16_t battery = 0;
    uint8_t charge = 0;
};
// How much of a sample a node's firmware reports: its payload length on the wire.
enum class tdoa_form : uint16_t { bare = 28, with_board = 38, with_charge = 39 };

struct range_entry {
    uint16_t peer;
    uint32_t distance;
    uint16_t quality;
};

struct route_neighbour {
    mac_bytes mac;
    uint8_t lqi;
};

struct ota_page_id {
    uint32_t git_id = 0;
    uint32_t crc = 0;
    uint16_t page_size = 0;
    uint16_t page = 0;
    bool operator==(const ota_page_id&) const = default;
};

uplink_message make_ping(const mac_bytes& bridge, uint8_t seq, view payload);
uplink_message make_prefix_request(const mac_bytes& bridge, uint8_t seq);
uplink_message make_root_announce(const mac_bytes& bridge, uint8_t seq, uint16_t prefix, uint8_t version);
// `type` is heartbeat or node_announce; `via` the bridge that passes the message to the gateway.
uplink_message make_heartbeat(kind type, const vital_signs& signs, uint8_t seq, const mac_bytes& via);
uplink_message make_sensor(const mac_bytes& node, uint8_t seq, view payload);
uplink_message make_range(const mac_bytes& node, uint8_t seq, std::span<const range_entry> entries,
                          const report_stamp& stamp);
uplink_message make_ul_tdoa(const mac_bytes& node, uint8_t seq, const tdoa_sample& sample, tdoa_form form);
uplink_message make_route(const mac_bytes& node, uint8_t seq, const mac_bytes& reporter,
                          std::span<const route_neighbour> neighbours);
// A generic request of a sub-command that the gateway passes on unread.
uplink_message make_generic(const mac_bytes& node, uint8_t seq, uint16_t command, view rest);
uplink_message make_ota_page_request(const mac_bytes& node, uint8_t seq, const ota_page_id& id);

// Whether the message of this kind is followed by the sender's address when a device sends it itself.
bool has_trailer(kind k);
// Whether it then names its bridge before that address, and so measures the same as in an envelope.
bool names_bridge(kind k);

// The ways up. `body` is an uplink_message's.
// By a device on the gateway's own link: a heartbeat names its bridge before the address.
bytes sent_directly(const uplink_message& message, const mac_bytes& bridge, const ip_bytes& ip);
// Passed on by a bridge, in an envelope with a sequence number of its own.
bytes sent_forwarded(const uplink_message& message, msg envelope, uint8_t envelope_seq, const ip_bytes& ip);
void set_flags(bytes& message, uint16_t flags);

struct generation_time {
    uint32_t seconds;
    uint16_t fraction; // in 1/65536 s
    uint16_t milliseconds() const { return static_cast<uint16_t>(fraction * 1000U / 65536U); }
};
bytes sent_with_time(view message, uint8_t seq, const generation_time& time);

} // namespace sim
