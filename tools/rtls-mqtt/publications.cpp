#include "rtls-mqtt/publications.h"

#include "common/texts.h"
#include "decode/json.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <ctime>

namespace mqtt {

using namespace rtls::recording;
using nlohmann::ordered_json;
using rtls::decode::decoded;

static constexpr char invalid_kind[] = "invalid";

std::string time_text(uint64_t clock_ns)
{
    const auto seconds = static_cast<time_t>(clock_ns / 1'000'000'000);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds), clock_ns / 1000 % 1'000'000);
}

static std::vector<uint8_t> all_frames(const tap_message& message)
{
    std::vector<uint8_t> bytes;
    for (const auto& frame : message.payload)
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    return bytes;
}

static decoded report_of(const tap_message& message)
{
    if (message.payload.size() == 2)
        return rtls::decode::decode_report(message.payload[0], message.payload[1]);
    decoded report;
    report.way = rtls::decode::direction::report;
    report.reason = fmt::format("{} frames", message.payload.size());
    report.bytes = all_frames(message);
    return report;
}

// What the tap's head says of it, with the names that rtls-tail has.
static ordered_json head_of(const tap_message& message)
{
    return {{"clock", time_text(message.head.clock_ns)},
            {"clock_ns", message.head.clock_ns},
            {"number", message.head.number},
            {"connection", message.head.connection}};
}

static std::optional<publication> of_report(const topics& names, const tap_message& message)
{
    const decoded report = report_of(message);
    auto topic = names.node(subject_of(message.topic), report.is_valid() ? report.kind : invalid_kind);
    if (!topic)
        return std::nullopt;
    ordered_json object = head_of(message);
    object["message"] = rtls::decode::to_json(report);
    return publication{std::move(*topic), tools::json_text(object), report.is_valid()};
}

static std::string name_of(const ordered_json& event)
{
    const auto found = event.find("event");
    const auto* name = found == event.end() ? nullptr : found->get_ptr<const std::string*>();
    return name ? *name : invalid_kind;
}

static publication of_event(const topics& names, const tap_message& message)
{
    const auto bytes = all_frames(message);
    const std::string text{bytes.begin(), bytes.end()};
    ordered_json event = ordered_json::parse(text, nullptr, false);
    if (!event.is_object())
        event = ordered_json{{"text", text}};
    const std::string name = name_of(event);
    ordered_json object = head_of(message);
    object["event"] = std::move(event);
    return {names.event(name), tools::json_text(object), false};
}

std::optional<publication> publication_of(const topics& names, const tap_message& message)
{
    switch (class_of(message.topic)) {
    case message_class::report:
        return of_report(names, message);
    case message_class::event:
        return of_event(names, message);
    default:
        return std::nullopt;
    }
}

} // namespace mqtt
