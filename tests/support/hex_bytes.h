// hex_bytes - bytes of a test written as one sees them on the wire: "0A 1b ff".
//
// Threads    Any. What is no hex digit reads as 0: a test sees that in what it compares.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

using bytes_t = std::vector<uint8_t>;

// The digits alone, as to_hex writes them.
inline std::string digits(std::string_view text)
{
    std::string without_blanks{text};
    std::erase(without_blanks, ' ');
    return without_blanks;
}

// Blanks between the digits are for the reader.
inline bytes_t hex(std::string_view text)
{
    const std::string pairs = digits(text);
    bytes_t bytes;
    for (size_t i = 0; i + 1 < pairs.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::strtoul(pairs.substr(i, 2).c_str(), nullptr, 16)));
    return bytes;
}

inline std::string text_of(const bytes_t& bytes)
{
    return {bytes.begin(), bytes.end()};
}

inline bytes_t operator+(bytes_t left, const bytes_t& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// `count` bytes, counting up from `first`: any two of them tell apart.
inline bytes_t ramp(size_t count, uint8_t first = 0)
{
    bytes_t bytes(count);
    for (size_t i = 0; i < count; i++)
        bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

inline bytes_t slice(std::span<const uint8_t> bytes, size_t at, size_t count)
{
    const auto part = bytes.subspan(at, count);
    return {part.begin(), part.end()};
}

} // namespace rtls
