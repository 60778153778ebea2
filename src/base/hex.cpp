#include "base/hex.h"

#include "base/null_check.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace rtls {

static constexpr auto make_digit_pairs()
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::array<char, 512> pairs{};
    for (size_t byte = 0; byte < 256; ++byte) {
        pairs[2 * byte] = digits[byte >> 4];
        pairs[2 * byte + 1] = digits[byte & 0x0F];
    }
    return pairs;
}

static constexpr auto digit_pairs = make_digit_pairs();

static constexpr uint8_t no_digit = 0xFF;

// By character: the hex digit's value, or no_digit.
static constexpr std::array<uint8_t, 256> make_digit_values()
{
    std::array<uint8_t, 256> values{};
    values.fill(no_digit);
    for (uint8_t i = 0; i < 10; ++i)
        values[size_t{'0'} + i] = i;
    for (uint8_t i = 0; i < 6; ++i)
        values[size_t{'a'} + i] = values[size_t{'A'} + i] = static_cast<uint8_t>(10 + i);
    return values;
}

static constexpr auto digit_values = make_digit_values();

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

static uint8_t digit_value(char character)
{
    return digit_values[static_cast<uint8_t>(character)];
}

// As a signed char, whatever the platform's char is: a byte above 0x7F prints eight digits.
static void log_no_digit(char character)
{
    logger_error(g_logger, "%s: Invalid input data: [%02X]", "string_to_uint8_arr",
                 static_cast<unsigned>(static_cast<signed char>(character)));
}

ssize_t string_to_uint8_arr(const char* hex_string, uint8_t* pret, ssize_t max_size)
{
    if (any_null(__func__, hex_string, pret))
        return 0;
    ssize_t size = 0;
    int high = -1; // the first digit of a pair; -1 between pairs
    for (const char* p = hex_string; *p != '\0' && size <= max_size; ++p) {
        const uint8_t digit = digit_value(*p);
        if (digit == no_digit) {
            log_no_digit(*p);
            return 0;
        }
        if (high < 0) {
            high = digit;
        } else {
            pret[size++] = static_cast<uint8_t>(high << 4 | digit);
            high = -1;
        }
    }
    return size;
}

bool hex_to_bytes(std::string_view text, uint8_t* out)
{
    const auto refuse = [&text] {
        log_no_digit(*std::ranges::find(text, no_digit, digit_value));
        return false;
    };
    for (const char* pair = text.data(); pair + 1 < text.data() + text.size(); pair += 2) {
        const uint8_t high = digit_value(pair[0]);
        const uint8_t low = digit_value(pair[1]);
        if ((high | low) == no_digit)
            return refuse();
        *out++ = static_cast<uint8_t>(high << 4 | low);
    }
    return text.size() % 2 == 0 || digit_value(text.back()) != no_digit || refuse();
}

} // namespace rtls
