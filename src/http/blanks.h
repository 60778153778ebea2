// blanks - blanks within a header's line, "optional whitespace" in RFC 9110, 5.6.3: spaces and tabs.
//
// Ownership  A trimmed text is a part of the one given, valid as long as that is.
// Threads    Any: pure.
// Failures   None: of blanks alone nothing is left.
#pragma once

#include <string_view>

namespace rtls {

inline constexpr std::string_view blanks = " \t";

// The text without blanks at its ends.
constexpr std::string_view trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

} // namespace rtls
