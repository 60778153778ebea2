#include "impl/management.h"

#include "decode/hex_bytes.h"
#include "impl/writing.h"
#include "wire/report_texts.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

namespace rtls::decode {

using nlohmann::json;

// What the text does not have of the request that it is made from.
static constexpr char unsaid_reporter[] = "0000";
static constexpr char unsaid_mac[] = "00";

namespace {

// How a field of the request stands in the text's object.
enum class style : uint8_t {
    number,
    text,
    short_hex // without its leading zeros
};

struct text_member {
    const char* field;
    const char* pointer;
    style as;
    size_t digits; // of a hex number in the request
};

} // namespace

static constexpr text_member ul_tdoa_members[] = {
    {"tag_mac", "/tag/mac", style::text, 0},
    {"pe_seq_no", "/pe_seq_no", style::number, 0},
    {"responder_mac", "/responder/mac", style::text, 0},
    {"reporter_mac", "/reporter/mac", style::text, 0},
    {"range_mm", "/range_mm", style::number, 0},
    {"tag_lqi", "/tag/lqi", style::number, 0},
    {"resp_anchor_lqi", "/responder/lqi", style::number, 0},
    {"board_version", "/board_version", style::number, 0},
    {"board_revision", "/board_revision", style::number, 0},
    {"flags", "/flags", style::short_hex, 4},
    {"firmware_id", "/firmware_id", style::short_hex, 8},
    {"batt_voltage", "/batt_voltage", style::number, 0},
    {"percent_of_charge", "/percent_of_charge", style::number, 0},
};

// --- to a line

static std::optional<int64_t> number_in(const group& fields, std::string_view name)
{
    const value* found = find(fields, name);
    const auto* number = found ? std::get_if<int64_t>(found) : nullptr;
    return number ? std::optional{*number} : std::nullopt;
}

// The request that the line says, behind a header as on the link, and with what the line leaves out.
static encoded request_of(const decoded& line)
{
    for (const char* unsaid : {"data", "payload_rest"})
        if (find(line.fields, unsaid))
            return {{}, "a line has no field " + std::string{unsaid}};
    group fields;
    fields.push_back({"sub_command", line.kind});
    for (const field& f : line.fields)
        if (f.name != "seconds" && f.name != "milliseconds")
            fields.push_back(f);
    if (line.kind == "route_request")
        fields.push_back({"reporter_skipped", unsaid_reporter});
    for (field& f : fields)
        if (auto* list = std::get_if<std::vector<group>>(&f.is))
            for (group& entry : *list)
                entry.push_back({"mac_skipped", unsaid_mac});
    encoded body = write_body(bodies_of(direction::up), fields);
    if (!body.is_valid())
        return body;
    if (body.bytes.size() > UINT16_MAX)
        return {{}, "it is too long"};
    std::vector<uint8_t> request(msgHeader_t::size);
    store_le16(request, msgHeader_t::total_len, static_cast<uint16_t>(body.bytes.size()));
    request.insert(request.end(), body.bytes.begin(), body.bytes.end());
    return {std::move(request), {}};
}

static std::string route_text(bytes_view request)
{
    const size_t requesters = route_requesters(load_le16(request, msgHeader_t::total_len));
    std::string text(route_request_text_size(requesters), '\0');
    write_route_request_text(request, requesters, text);
    text.pop_back(); // the terminating zero
    return text;
}

static std::string ul_tdoa_text(bytes_view request)
{
    const auto report = read_ul_tdoa(request);
    std::array<char, ul_tdoa_text_limit> text{};
    return report ? std::string(text.data(), write_ul_tdoa_text(*report, text)) : std::string{};
}

encoded encode_line(const decoded& message)
{
    const auto seconds = number_in(message.fields, "seconds");
    const auto milliseconds = number_in(message.fields, "milliseconds");
    if (!seconds || !milliseconds || *milliseconds < 0 || *milliseconds > UINT32_MAX)
        return {{}, "the fields seconds and milliseconds are no time"};
    if (message.kind != "route_request" && message.kind != "ul_tdoa")
        return {{}, "no management line is called " + message.kind};
    encoded request = request_of(message);
    if (!request.is_valid())
        return request;
    std::array<char, management_head_limit> head{};
    const size_t head_size = write_management_head(
        {.seconds = *seconds, .milliseconds = static_cast<uint32_t>(*milliseconds)}, head);
    std::string line{head.data(), head_size};
    line += message.kind == "ul_tdoa" ? ul_tdoa_text(request.bytes) : route_text(request.bytes);
    line += management_tail;
    return {{line.begin(), line.end()}, {}};
}

// --- from a line

static bool add_number(const json& from, std::string_view name, group& fields)
{
    if (!from.is_number_integer())
        return false;
    fields.push_back({std::string{name}, from.get<int64_t>()});
    return true;
}

static bool add_text(const json& from, const text_member& member, group& fields)
{
    if (!from.is_string())
        return false;
    std::string text = from.get<std::string>();
    if (text.size() < member.digits)
        text.insert(0, member.digits - text.size(), '0');
    std::ranges::transform(text, text.begin(),
                           [](char c) { return c >= 'A' && c <= 'F' ? char(c - 'A' + 'a') : c; });
    fields.push_back({member.field, std::move(text)});
    return true;
}

static bool add_member(const json& object, const text_member& member, group& fields)
{
    const json::json_pointer pointer{member.pointer};
    if (!object.contains(pointer))
        return true; // the request says whether it may be missing
    const json& found = object[pointer];
    return member.as == style::number ? add_number(found, member.field, fields)
                                      : add_text(found, member, fields);
}

static bool read_ul_tdoa_text(const json& object, group& fields)
{
    return std::ranges::all_of(ul_tdoa_members,
                               [&](const text_member& member) { return add_member(object, member, fields); });
}

static bool read_route_text(const json& object, group& fields)
{
    const json::json_pointer list{"/requester"};
    if (!add_member(object, {"reporter", "/reporter/mac", style::text, 0}, fields) ||
        !object.contains(list) || !object[list].is_array())
        return false;
    std::vector<group> requesters;
    for (const json& requester : object[list]) {
        group& entry = requesters.emplace_back();
        if (!add_member(requester, {"mac", "/mac", style::text, 0}, entry) ||
            !add_member(requester, {"lqi", "/lqi", style::number, 0}, entry))
            return false;
    }
    fields.push_back({"requesters", std::move(requesters)});
    return true;
}

static bool read_line(const json& object, decoded& message)
{
    if (!object.is_object() || !object.contains("ts") || !object.contains("ms") ||
        !add_number(object["ts"], "seconds", message.fields) ||
        !add_number(object["ms"], "milliseconds", message.fields))
        return false;
    if (object.contains("ul_tdoa_data")) {
        message.kind = "ul_tdoa";
        return read_ul_tdoa_text(object["ul_tdoa_data"], message.fields);
    }
    message.kind = "route_request";
    return object.contains("route_request") && read_route_text(object["route_request"], message.fields);
}

static decoded no_line(bytes_view line, const char* why)
{
    return {.way = direction::management,
            .kind = {},
            .fields = {},
            .reason = why,
            .bytes = {line.begin(), line.end()}};
}

decoded decode_line(bytes_view line)
{
    static constexpr std::string_view name = "@win_management ";
    const std::string_view text{reinterpret_cast<const char*>(line.data()), line.size()};
    if (!text.starts_with(name))
        return no_line(line, "it does not begin with @win_management");
    const json object = json::parse(text.substr(name.size()), nullptr, false);
    decoded message{.way = direction::management, .kind = {}, .fields = {}, .reason = {}, .bytes = {}};
    if (!read_line(object, message))
        return no_line(line, "its JSON is no time with a route request or UL-TDOA data");
    const encoded again = encode_line(message);
    if (!again.is_valid() || !std::ranges::equal(again.bytes, line))
        return no_line(line, "its wording is not the gateway's");
    return message;
}

} // namespace rtls::decode
