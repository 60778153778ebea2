#include "base/hex.h"

#include <array>
#include <cstring>

namespace rtls {

namespace {

constexpr auto make_digit_pairs()
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::array<char, 512> pairs{};
    for (size_t byte = 0; byte < 256; ++byte) {
        pairs[2 * byte] = digits[byte >> 4];
        pairs[2 * byte + 1] = digits[byte & 0x0F];
    }
    return pairs;
}

constexpr auto digit_pairs = make_digit_pairs();

} // namespace

std::string to_hex(std::span<const uint8_t> bytes)
{
    std::string text(2 * bytes.size(), '\0');
    write_hex(bytes, text.data());
    return text;
}

char* write_hex(std::span<const uint8_t> bytes, char* out)
{
    for (const uint8_t byte : bytes) {
        std::memcpy(out, &digit_pairs[2 * static_cast<size_t>(byte)], 2);
        out += 2;
    }
    return out;
}

} // namespace rtls
