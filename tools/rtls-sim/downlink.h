// downlink - what the gateway sends down to a bridge, taken apart.
//
// Threads    Any; nothing is kept. Pages are views into the message.
// Failures   What has no known form is not valid, or nothing.
#pragma once

#include "rtls-sim/uplink.h"

#include <optional>
#include <string>

namespace sim {

// How the gateway addressed a command: to a node on its own link, or wrapped for one behind a bridge.
enum class delivery : uint8_t { broadcast, direct, wrapped, wrapped_direct };
std::string_view delivery_name(delivery way);

struct downlink_message {
    bool valid = false; // false: of no known form; only `type` may mean something
    uint16_t type = 0;  // of the message itself, not of its wrapper
    uint8_t seq = 0;
    delivery way = delivery::broadcast;
    mac_bytes mac{}; // zero where the form carries none
    ip_bytes ip{};   // zero in a broadcast
    // The rest by type: a generic command's payload; the fields of a configuration between its type and its
    // address; the prefix and version of a prefix response; a ping's payload; raw data for a node.
    bytes payload;
};

downlink_message read_downlink(view message);

// A node configuration in a downlink_message's payload. Positions arrive in network order, or in the link's
// when bit 7 of the role asks for it.
struct node_config {
    uint8_t reporting_freq;
    uint8_t ranging_freq;
    uint8_t role;
    uint8_t sublocation;
    int32_t x;
    int32_t y;
    int32_t z;
};
std::optional<node_config> read_config(view payload);

// What "set" asks a node to fetch.
struct ota_order {
    uint32_t git_id = 0;
    uint32_t crc = 0;
    uint32_t size = 0;
    std::optional<uint16_t> source; // nothing: passive; 0: the gateway; else the node with that short MAC
};
std::optional<ota_order> read_ota_order(view payload);

struct received_page {
    ota_page_id id;
    view data;
};
std::optional<received_page> read_ota_page(view payload);

// One line for people.
std::string describe(const downlink_message& message);

} // namespace sim
