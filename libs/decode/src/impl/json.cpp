#include "decode/json.h"

#include "decode/hex_bytes.h"

#include <nlohmann/json.hpp>

namespace rtls::decode {

using nlohmann::ordered_json;

static constexpr char invalid_kind[] = "invalid";

// --- to JSON

static ordered_json object_of(const group& fields);

static ordered_json json_of(const value& is)
{
    if (const auto* fields = std::get_if<group>(&is))
        return object_of(*fields);
    if (const auto* list = std::get_if<std::vector<group>>(&is)) {
        ordered_json array = ordered_json::array();
        for (const group& entry : *list)
            array.push_back(object_of(entry));
        return array;
    }
    if (const auto* number = std::get_if<int64_t>(&is))
        return *number;
    if (const auto* flag = std::get_if<bool>(&is))
        return *flag;
    return std::get<std::string>(is);
}

static void add(ordered_json& object, const group& fields)
{
    for (const field& f : fields)
        object[f.name] = json_of(f.is);
}

static ordered_json object_of(const group& fields)
{
    ordered_json object = ordered_json::object();
    add(object, fields);
    return object;
}

ordered_json to_json(const decoded& message)
{
    ordered_json object;
    object["direction"] = direction_name(message.way);
    if (!message.is_valid()) {
        object["kind"] = invalid_kind;
        object["reason"] = message.reason;
        object["bytes"] = hex_of(message.bytes);
        return object;
    }
    object["kind"] = message.kind;
    add(object, message.fields);
    return object;
}

// --- from JSON

// Messages nest three deep; what nests deeper is none.
static constexpr unsigned depth_limit = 8;

static bool read_group(const ordered_json& object, unsigned depth, group& fields);

static bool read_list(const ordered_json& array, unsigned depth, std::vector<group>& list)
{
    for (const ordered_json& entry : array)
        if (!read_group(entry, depth, list.emplace_back()))
            return false;
    return true;
}

static bool read_value(const ordered_json& from, unsigned depth, value& is)
{
    switch (from.type()) {
    case ordered_json::value_t::number_integer:
        is = from.get<int64_t>();
        return true;
    case ordered_json::value_t::number_unsigned:
        is = static_cast<int64_t>(from.get<uint64_t>());
        return from.get<uint64_t>() <= INT64_MAX;
    case ordered_json::value_t::boolean:
        is = from.get<bool>();
        return true;
    case ordered_json::value_t::string:
        is = from.get<std::string>();
        return true;
    case ordered_json::value_t::object:
        return read_group(from, depth + 1, is.emplace<group>());
    case ordered_json::value_t::array:
        return read_list(from, depth + 1, is.emplace<std::vector<group>>());
    default:
        return false;
    }
}

static bool read_group(const ordered_json& object, unsigned depth, group& fields)
{
    if (!object.is_object() || depth > depth_limit)
        return false;
    for (const auto& [name, is] : object.items())
        if (!read_value(is, depth, fields.emplace_back(field{name, int64_t{0}}).is))
            return false;
    return true;
}

static decoded no_message(const char* why)
{
    decoded message;
    message.reason = why;
    return message;
}

// A field of the object itself, which is not one of the message; false when it is no text.
static bool take_text(group& fields, std::string_view name, std::string& text)
{
    for (auto at = fields.begin(); at != fields.end(); ++at)
        if (at->name == name && std::holds_alternative<std::string>(at->is)) {
            text = std::get<std::string>(at->is);
            fields.erase(at);
            return true;
        }
    return false;
}

static decoded invalid_message(decoded message)
{
    std::string hex;
    if (!take_text(message.fields, "reason", message.reason) || message.reason.empty() ||
        !take_text(message.fields, "bytes", hex))
        return no_message("what is not valid has a reason and bytes");
    auto bytes = bytes_of_hex(hex);
    if (!bytes || !message.fields.empty())
        return no_message("what is not valid has bytes as hex, and nothing else");
    message.bytes = std::move(*bytes);
    message.kind.clear();
    return message;
}

decoded from_json(const ordered_json& object)
{
    decoded message;
    if (!read_group(object, 0, message.fields))
        return no_message("it is no object of numbers, texts, flags, objects and lists of these");
    std::string way;
    if (!take_text(message.fields, "direction", way) || !read_direction(way, message.way))
        return no_message("it has no direction");
    if (!take_text(message.fields, "kind", message.kind))
        return no_message("it has no kind");
    return message.kind == invalid_kind ? invalid_message(std::move(message)) : message;
}

// --- as text

std::string to_json_text(const decoded& message)
{
    return to_json(message).dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

decoded from_json_text(std::string_view text)
{
    const ordered_json object = ordered_json::parse(text, nullptr, false);
    return object.is_discarded() ? no_message("it is no JSON") : from_json(object);
}

} // namespace rtls::decode
