#include "rtls-mqtt/topics.h"

#include <algorithm>

namespace mqtt {

static constexpr size_t longest_level = 64;
static constexpr size_t mac_digits = 16;

// Of ASCII, whatever the locale.
static bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

static bool is_hex_digit(char c)
{
    return (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || (c >= '0' && c <= '9');
}

bool is_level(std::string_view text)
{
    return !text.empty() && text.size() <= longest_level && std::ranges::all_of(text, [](char c) {
        return is_letter_or_digit(c) || c == '-' || c == '_' || c == '.';
    });
}

bool is_mac(std::string_view text)
{
    return text.size() == mac_digits && std::ranges::all_of(text, is_hex_digit);
}

static std::string level_of(std::string_view text)
{
    return is_level(text) ? std::string{text} : "other";
}

static char upper(char c)
{
    return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::optional<std::string> topics::node(std::string_view mac, std::string_view kind) const
{
    if (!is_mac(mac))
        return std::nullopt;
    std::string digits{mac};
    std::ranges::transform(digits, digits.begin(), upper);
    return m_root + "node/" + digits + "/" + level_of(kind);
}

std::string topics::event(std::string_view name) const
{
    return m_root + "event/" + level_of(name);
}

std::optional<std::string> topics::command_in(std::string_view topic) const
{
    const std::string begin = m_root + "command/";
    if (!topic.starts_with(begin) || !is_level(topic.substr(begin.size())))
        return std::nullopt;
    return std::string{topic.substr(begin.size())};
}

} // namespace mqtt
