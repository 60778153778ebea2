// publications - messages of the tap as what a broker gets: a topic, and JSON.
//
// Ownership  Values.
// Threads    Any; pure.
// Bytes      UTF-8 without control characters, whatever nodes and gateway say.
// Failures   What cannot be decoded is told as bytes with the reason. Of memory: std::bad_alloc.
#pragma once

#include "recording/tap_message.h"
#include "rtls-mqtt/topics.h"

#include <cstdint>
#include <optional>
#include <string>

namespace mqtt {

struct publication {
    std::string topic;
    std::string payload;
    bool is_retained = false; // the broker keeps it for whoever subscribes later
};

// Of a report or an event; nothing for all else, and for a report whose topic names no node. A report is its node's
// last state of that kind, and retained, unless it is invalid.
std::optional<publication> publication_of(const topics& names, const rtls::recording::tap_message& message);

// "2026-11-22T15:10:27.123456Z"
std::string time_text(uint64_t clock_ns);

} // namespace mqtt
