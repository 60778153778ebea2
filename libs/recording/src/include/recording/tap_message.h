// tap_message - one message of a gateway's tap: its topic, the head, and the payload as it passed.
//
// Frame 0 is the topic, frame 1 the head of 24 bytes, the rest the payload (tap/tap_format.h has its layout,
// docs/tap.md its meaning).
// Ownership  Values: a message owns its bytes. Names are constants; subject_of() gives a part of what it was given.
// Threads    Any: pure functions.
// Bytes      The head is in network byte order.
// Failures   False for what is no head. Of memory: std::bad_alloc.
#pragma once

#include "base/bytes.h"
#include "tap/tap_format.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::recording {

// What has a running number of its own.
enum class message_class : uint8_t { report, management, command, link_in, link_out, event, other };
constexpr size_t class_count = 7;

namespace way {
constexpr auto up = static_cast<uint8_t>(tap_direction::up); // from the network to the servers
constexpr auto down = static_cast<uint8_t>(tap_direction::down);
constexpr auto neither = static_cast<uint8_t>(tap_direction::neither);
} // namespace way

struct tap_head {
    uint8_t way = recording::way::neither;
    uint16_t reserved = 0;   // 0, so far
    uint32_t connection = 0; // the number of the bridge's connection; 0 where there is none
    uint64_t number = 0;     // the running number within the class, from 1
    uint64_t clock_ns = 0;   // of the gateway, since 1970

    bool operator==(const tap_head&) const = default;
};

struct tap_message {
    std::string topic;
    tap_head head;
    std::vector<std::vector<uint8_t>> payload;

    bool operator==(const tap_message&) const = default;
};

constexpr size_t tap_head_size = rtls::tap_head::size;
std::array<uint8_t, tap_head_size> compose_head(const tap_head& head);
// False when the size or the version is another one; `head` is untouched then.
bool parse_head(bytes_view bytes, tap_head& head);

message_class class_of(std::string_view topic);
// As topics begin: "link/in"; "other" for what no class is called.
std::string_view class_name(message_class of);
// The MAC or the bridge at the topic's end, as long as the topic's text lives; empty where topics have none.
std::string_view subject_of(std::string_view topic);

// "up", "down" or "neither", which every other number is, too.
std::string_view way_name(uint8_t way);

} // namespace rtls::recording
