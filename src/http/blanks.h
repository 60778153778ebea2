// Blanks within a header's line, "optional whitespace" in RFC 9110, 5.6.3: spaces and tabs.
#pragma once

#include <string_view>

namespace rtls {

inline constexpr std::string_view blanks = " \t";

// The text without blanks at its ends: a part of it, valid as long as it is.
constexpr std::string_view trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

} // namespace rtls
