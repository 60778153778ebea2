#include "rtls-tail/viewer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace tail {

using namespace rtls::recording;
using nlohmann::ordered_json;
using rtls::decode::decoded;
using rtls::decode::direction;

// Connections that are remembered at once; beyond, all are forgotten.
static constexpr size_t connection_limit = 100'000;
static constexpr char invalid_kind[] = "invalid";

static std::string text_of(const std::vector<uint8_t>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

static decoded not_decoded(direction way, const std::string& why, std::vector<uint8_t> bytes)
{
    decoded message;
    message.way = way;
    message.reason = why;
    message.bytes = std::move(bytes);
    return message;
}

static sight sight_of(const tap_message& from, decoded message)
{
    sight it;
    it.from = &from;
    it.kind = message.is_valid() ? message.kind : invalid_kind;
    it.message = std::move(message);
    return it;
}

static std::vector<uint8_t> all_frames(const tap_message& message)
{
    std::vector<uint8_t> bytes;
    for (const auto& frame : message.payload)
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    return bytes;
}

static decoded frames_missing(direction way, const tap_message& message)
{
    return not_decoded(way, fmt::format("{} frames", message.payload.size()), all_frames(message));
}

static decoded report_of(const tap_message& message)
{
    return message.payload.size() == 2 ? rtls::decode::decode_report(message.payload[0], message.payload[1])
                                       : frames_missing(direction::report, message);
}

static decoded command_of(const tap_message& message)
{
    if (message.payload.size() != 1)
        return frames_missing(direction::command, message);
    const auto bytes = rtls::decode::bytes_of_command(text_of(message.payload[0]));
    return bytes.empty() ? not_decoded(direction::command, "no hex", message.payload[0])
                         : rtls::decode::decode(direction::command, bytes);
}

static decoded line_of(const tap_message& message)
{
    return message.payload.size() == 1 ? rtls::decode::decode(direction::management, message.payload[0])
                                       : frames_missing(direction::management, message);
}

// --- Connections

static bool is_name(std::string_view bridge)
{
    return !bridge.empty() && !bridge.starts_with("id-");
}

void viewer::learn(uint32_t connection, const std::string& bridge)
{
    if (connection == 0 || !is_name(bridge))
        return;
    if (m_bridges.size() >= connection_limit)
        m_bridges.clear();
    m_bridges[connection] = bridge;
}

static const std::string* text_at(const decoded& message, const std::string& path)
{
    const auto* field = rtls::decode::find(message.fields, path);
    return field ? std::get_if<std::string>(field) : nullptr;
}

// The MAC by which a bridge names itself in what it sends; nullptr when it is not in this.
static const std::string* own_mac(const decoded& said)
{
    const bool is_timed = said.kind == "wrap_ts";
    const std::string within = is_timed ? "message." : "";
    const std::string* inner_kind = text_at(said, "message.kind");
    const bool asks = is_timed ? inner_kind && *inner_kind == "panid_req" : said.kind == "panid_req";
    return text_at(said, within + (asks ? "ieee_addr" : "bridge_mac"));
}

// As the gateway does, for those whose topics do not have the name yet.
void viewer::learn_from(const tap_message& message, const decoded& said)
{
    const std::string* mac = is_name(subject_of(message.topic)) ? nullptr : own_mac(said);
    if (!mac || mac->find_first_not_of('0') == std::string::npos)
        return;
    std::string name = *mac;
    std::ranges::transform(name, name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    learn(message.head.connection, name);
}

static const std::string* text_in(const ordered_json& object, const char* name)
{
    const auto found = object.find(name);
    return found == object.end() ? nullptr : found->get_ptr<const std::string*>();
}

void viewer::forget(uint32_t connection)
{
    m_in.erase(connection);
    m_out.erase(connection);
    m_bridges.erase(connection);
}

sight viewer::event_sight(const tap_message& message)
{
    const std::string text = text_of(all_frames(message));
    sight it;
    it.from = &message;
    it.event = ordered_json::parse(text, nullptr, false);
    if (!it.event.is_object())
        it.event = ordered_json{{"text", text}};
    const std::string* name = text_in(it.event, "event");
    it.kind = name ? *name : invalid_kind;
    if (const std::string* bridge = text_in(it.event, "bridge")) {
        learn(message.head.connection, *bridge);
        it.bridge = *bridge;
    }
    if (it.kind == "bridge_closed")
        forget(message.head.connection);
    return it;
}

std::vector<sight> viewer::link_sights(const tap_message& message, direction way)
{
    auto& streams = way == direction::up ? m_in : m_out;
    if (streams.size() >= connection_limit)
        streams.clear();
    learn(message.head.connection, std::string{subject_of(message.topic)});
    std::vector<sight> sights;
    for (const auto& frame : message.payload)
        for (const auto& bytes : streams[message.head.connection].feed(frame)) {
            sights.push_back(sight_of(message, rtls::decode::decode(way, bytes)));
            if (way == direction::up)
                learn_from(message, sights.back().message);
        }
    return sights;
}

void viewer::forget_beginning(const tap_message& message)
{
    auto& streams = class_of(message.topic) == message_class::link_out ? m_out : m_in;
    streams.erase(message.head.connection);
}

void viewer::forget_beginnings(message_class of)
{
    if (of == message_class::link_in)
        m_in.clear();
    if (of == message_class::link_out)
        m_out.clear();
}

std::string viewer::bridge_of(const sight& it) const
{
    const message_class of = class_of(it.from->topic);
    const std::string_view subject = subject_of(it.from->topic);
    const bool is_link = of == message_class::link_in || of == message_class::link_out;
    if (is_link && is_name(subject))
        return std::string{subject};
    if (const auto known = m_bridges.find(it.from->head.connection); known != m_bridges.end())
        return known->second;
    const std::string* text = text_at(it.message, "bridge_mac");
    return is_link ? std::string{subject} : text ? *text : "";
}

std::vector<sight> viewer::look(const tap_message& message)
{
    std::vector<sight> sights;
    switch (class_of(message.topic)) {
    case message_class::report:
        sights.push_back(sight_of(message, report_of(message)));
        break;
    case message_class::command:
        sights.push_back(sight_of(message, command_of(message)));
        break;
    case message_class::management:
        sights.push_back(sight_of(message, line_of(message)));
        break;
    case message_class::link_in:
        sights = link_sights(message, direction::up);
        break;
    case message_class::link_out:
        sights = link_sights(message, direction::down);
        break;
    case message_class::event:
        sights.push_back(event_sight(message));
        break;
    case message_class::other:
        break; // of a later version
    }
    for (sight& it : sights)
        if (it.bridge.empty())
            it.bridge = bridge_of(it);
    return sights;
}

} // namespace tail
