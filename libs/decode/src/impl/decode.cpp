#include "decode/decode.h"

#include "decode/hex_bytes.h"
#include "impl/management.h"
#include "impl/reading.h"
#include "impl/writing.h"

#include <algorithm>
#include <array>

namespace rtls::decode {

static constexpr std::array<std::string_view, 7> direction_names = {
    "up", "down", "command", "report", "management", "discovery_request", "discovery_answer"};

std::string_view direction_name(direction way)
{
    return direction_names[static_cast<size_t>(way)];
}

bool read_direction(std::string_view name, direction& way)
{
    const auto found = std::ranges::find(direction_names, name);
    if (found == direction_names.end())
        return false;
    way = static_cast<direction>(found - direction_names.begin());
    return true;
}

static const value* find_own(const group& fields, std::string_view name)
{
    const auto found = std::ranges::find(fields, name, &field::name);
    return found == fields.end() ? nullptr : &found->is;
}

const value* find(const group& fields, std::string_view path)
{
    const size_t dot = path.find('.');
    const value* own = find_own(fields, path.substr(0, dot));
    if (!own || dot == std::string_view::npos)
        return own;
    const auto* within = std::get_if<group>(own);
    return within ? find(*within, path.substr(dot + 1)) : nullptr;
}

decoded decode(direction way, bytes_view bytes)
{
    if (way == direction::management)
        return decode_line(bytes);
    decoded message{.way = way, .kind = {}, .fields = {}, .reason = {}, .bytes = {}};
    if (read_message(messages_of(way), bytes, message.kind, message.fields, message.reason))
        return message;
    message.kind.clear();
    message.fields.clear();
    message.bytes.assign(bytes.begin(), bytes.end());
    return message;
}

decoded decode_report(bytes_view time, bytes_view report)
{
    std::vector<uint8_t> both{time.begin(), time.end()};
    both.insert(both.end(), report.begin(), report.end());
    if (time.size() == report_timestamp::size)
        return decode(direction::report, both);
    return {.way = direction::report,
            .kind = {},
            .fields = {},
            .reason = "its time has " + std::to_string(time.size()) + " bytes",
            .bytes = std::move(both)};
}

encoded encode(const decoded& message)
{
    if (!message.is_valid())
        return {message.bytes, {}};
    if (message.way == direction::management)
        return encode_line(message);
    return write_message(messages_of(message.way), message.kind, message.fields);
}

std::vector<uint8_t> bytes_of_command(std::string_view text)
{
    if (text.find(':') != std::string_view::npos)
        return {};
    return bytes_of_hex(text.substr(0, text.size() & ~size_t{1})).value_or(std::vector<uint8_t>{});
}

std::string text_of_command(bytes_view bytes)
{
    std::string text = hex_of(bytes);
    for (char& c : text)
        if (c >= 'a')
            c = static_cast<char>(c - 'a' + 'A');
    return text;
}

} // namespace rtls::decode
