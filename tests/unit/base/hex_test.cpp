#include "base/hex.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <vector>

namespace rtls {

TEST(to_hex, writes_two_upper_case_digits_a_byte)
{
    const struct {
        std::vector<uint8_t> bytes;
        const char* text;
    } cases[] = {
        {{}, ""},
        {{0x00}, "00"},
        {{0x0A, 0xF0}, "0AF0"},
        {{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}, "0123456789ABCDEF"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(to_hex(c.bytes), c.text);
}

TEST(to_hex, knows_every_byte)
{
    for (unsigned value = 0; value < 256; ++value) {
        char expected[3];
        snprintf(expected, sizeof expected, "%02X", value);
        EXPECT_EQ(to_hex(std::array{static_cast<uint8_t>(value)}), expected);
    }
}

TEST(write_hex, returns_the_end_and_writes_nothing_behind_it)
{
    char text[8] = "zzzzzzz";
    const uint8_t bytes[] = {0xAB, 0xCD};
    EXPECT_EQ(write_hex(bytes, text + 1), text + 5);
    EXPECT_STREQ(text, "zABCDzz");
    EXPECT_EQ(write_hex({}, text + 1), text + 1);
    EXPECT_STREQ(text, "zABCDzz");
}

} // namespace rtls
