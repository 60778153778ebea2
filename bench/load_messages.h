// load_messages - what the bridges of the end-to-end benchmark say, and how it must leave the gateway or the bare relay.
//
// Each message carries the moment of its sending (ns of the steady clock) and a running number, so that whoever
// receives it can time it, and compare every sixteenth byte for byte.
// Threads    Any. Nothing waits.
#pragma once

#include "base/bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace rtls::load {

using message = std::vector<uint8_t>;

struct mark {
    uint64_t sent_ns = 0;
    uint32_t number = 0;
};

enum class subject { gateway, relay };

std::array<uint8_t, 8> bridge_mac(size_t bridge);
std::array<uint8_t, 16> bridge_ip(size_t bridge);

// Names the bridge and its node.
message heartbeat(size_t bridge, uint8_t seq, mark what);

// The same of a node that the bridge forwards for.
message heartbeat_behind(size_t bridge);

// A report whose payload has `payload_size` bytes.
message sensor(size_t bridge, uint8_t seq, mark what, size_t payload_size);

// Of ten: reports, generic requests and heartbeats in turn, three of the node behind the bridge, two with an acknowledgement.
message mixed(size_t bridge, uint8_t seq, mark what, size_t payload_size);

// The message as the subject hands it on. The relay hands on what it gets.
message handed_on(subject by, const message& sent);

// The mark of what a subject has handed on; none when it is no message of these.
std::optional<mark> mark_of(subject by, std::span<const uint8_t> handed);

// A command to the bridge's node, as the proxy publishes it: hex digits.
std::string command(size_t bridge, mark what);
// Its mark, from the message that reaches the bridge.
std::optional<mark> mark_of_command(std::span<const uint8_t> m);

message framed(bytes_view m);

} // namespace rtls::load
