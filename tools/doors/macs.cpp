#include "doors/macs.h"

#include "common/texts.h"
#include "doors/failure.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>

namespace ctl {

static std::string without_colons(std::string text)
{
    std::erase(text, ':');
    return text;
}

std::string mac_digits(const std::string& text)
{
    std::string digits = without_colons(text);
    std::ranges::transform(digits, digits.begin(), [](unsigned char c) { return std::tolower(c); });
    const bool is_hex = std::ranges::all_of(digits, [](unsigned char c) { return std::isxdigit(c) != 0; });
    if (!is_hex || (digits.size() != 4 && digits.size() != 5 && digits.size() != 16))
        throw failure(exit_status::usage,
                      fmt::format("\"{}\" is no MAC: all its 16 hex digits, or the last 4 or 5",
                                  tools::printable(text)));
    return digits;
}

bool ends_with(const json& node, const std::string& digits)
{
    return without_colons(node.at("mac").get<std::string>()).ends_with(digits);
}

std::string short_mac(const std::string& mac)
{
    const std::string digits = without_colons(mac);
    return digits.size() < 4 ? digits : digits.substr(digits.size() - 4);
}

} // namespace ctl
