#include "common/texts.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>

namespace tools {

static bool is_continuation(char c)
{
    return (static_cast<uint8_t>(c) & 0xC0) == 0x80;
}

// Of the second byte: no C1 control, no longer form of a shorter character, no half of a pair, none beyond the last.
static bool may_follow(uint8_t first, char second)
{
    const auto byte = static_cast<uint8_t>(second);
    switch (first) {
    case 0xC2:
    case 0xE0:
        return byte >= 0xA0;
    case 0xED:
        return byte < 0xA0;
    case 0xF0:
        return byte >= 0x90;
    case 0xF4:
        return byte < 0x90;
    default:
        return true;
    }
}

// How many bytes in front are one character that may be shown as it is; 0: none.
static size_t shown_as_it_is(std::string_view text)
{
    const auto first = static_cast<uint8_t>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size || !may_follow(first, text[1]))
        return 0;
    const auto rest = text.substr(1, size - 1);
    return std::all_of(rest.begin(), rest.end(), is_continuation) ? size : 0;
}

std::string printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const size_t size = shown_as_it_is(text);
        if (size == 0)
            shown += fmt::format("\\x{:02x}", static_cast<uint8_t>(text[0]));
        shown += text.substr(0, size);
        text.remove_prefix(std::max<size_t>(size, 1));
    }
    return shown;
}

size_t text_width(std::string_view text)
{
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), is_continuation));
}

// Outside of texts JSON has none of these, and within it leaves DEL and C1 (two bytes from C2 80 on) as they are.
static std::string escaped(const std::string& dumped)
{
    std::string text;
    text.reserve(dumped.size());
    for (size_t at = 0; at < dumped.size(); ++at) {
        const auto byte = static_cast<uint8_t>(dumped[at]);
        const uint8_t next = at + 1 < dumped.size() ? static_cast<uint8_t>(dumped[at + 1]) : 0;
        if (byte == 0x7F)
            text += "\\u007f";
        else if (byte == 0xC2 && next < 0xA0) {
            text += fmt::format("\\u{:04x}", next);
            ++at;
        } else
            text += dumped[at];
    }
    return text;
}

template <typename Json>
static std::string text_of(const Json& value, int indent)
{
    return escaped(value.dump(indent, ' ', false, Json::error_handler_t::replace));
}

std::string json_text(const nlohmann::json& value, int indent)
{
    return text_of(value, indent);
}

std::string json_text(const nlohmann::ordered_json& value, int indent)
{
    return text_of(value, indent);
}

} // namespace tools
