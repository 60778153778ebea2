#include "decode/hex_bytes.h"

#include <charconv>

namespace rtls::decode {

std::string hex_of(bytes_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::optional<std::vector<uint8_t>> bytes_of_hex(std::string_view text)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    while (!text.empty()) {
        if (text.front() == ':' && !bytes.empty())
            text.remove_prefix(1);
        if (text.size() < 2)
            return std::nullopt;
        uint8_t& byte = bytes.emplace_back();
        const char* const end = text.data() + 2;
        if (std::from_chars(text.data(), end, byte, 16).ptr != end)
            return std::nullopt;
        text.remove_prefix(2);
    }
    return bytes;
}

} // namespace rtls::decode
