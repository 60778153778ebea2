// viewer - what is in a message of the tap: decoded, with the node and the bridge that it is about.
//
// Ownership  Values; a sight borrows the tap's message. The viewer keeps the connections' streams and names.
// Threads    One.
// Failures   What cannot be decoded is shown as bytes with the reason.
#pragma once

#include "decode/decode.h"
#include "recording/tap_message.h"
#include "rtls-tail/link_stream.h"

#include <nlohmann/json.hpp>

#include <string>
#include <unordered_map>
#include <vector>

namespace tail {

struct sight {
    const rtls::recording::tap_message* from = nullptr;
    std::string kind;              // of the message; of an event its name; "invalid"
    rtls::decode::decoded message; // not of events
    nlohmann::ordered_json event;  // null but for events
    std::string bridge;            // empty when it is not known
};

class viewer {
public:
    // One for each message that is whole with this one: a read from a connection may end none, or several.
    std::vector<sight> look(const rtls::recording::tap_message& message);
    // Of this class something is missing: what has begun will not end.
    void forget_beginnings(rtls::recording::message_class of);
    // In front of this message of a connection something is missing.
    void forget_beginning(const rtls::recording::tap_message& message);

private:
    sight event_sight(const rtls::recording::tap_message& message);
    std::vector<sight> link_sights(const rtls::recording::tap_message& message, rtls::decode::direction way);
    void learn(uint32_t connection, const std::string& bridge);
    void learn_from(const rtls::recording::tap_message& message, const rtls::decode::decoded& said);
    void forget(uint32_t connection);
    std::string bridge_of(const sight& it) const;

    std::unordered_map<uint32_t, link_stream> m_in; // by connection
    std::unordered_map<uint32_t, link_stream> m_out;
    std::unordered_map<uint32_t, std::string> m_bridges;
};

} // namespace tail
