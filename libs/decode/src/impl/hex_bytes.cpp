#include "impl/hex_bytes.h"

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

static int digit_of(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::optional<std::vector<uint8_t>> bytes_of_hex(std::string_view text)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    while (!text.empty()) {
        if (text.front() == ':' && !bytes.empty())
            text.remove_prefix(1);
        if (text.size() < 2 || digit_of(text[0]) < 0 || digit_of(text[1]) < 0)
            return std::nullopt;
        bytes.push_back(static_cast<uint8_t>(digit_of(text[0]) << 4 | digit_of(text[1])));
        text.remove_prefix(2);
    }
    return bytes;
}

} // namespace rtls::decode
