#include "base/hex.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
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

TEST(string_to_uint8_arr, decodes_pairs_of_digits)
{
    log_capture log;
    using bytes = std::vector<uint8_t>;
    const struct {
        const char* given;
        const char* text;
        ssize_t max_size;
        ssize_t returned;
        bytes written; // into a buffer full of EE
        std::vector<std::string> logged;
    } cases[] = {
        {"nothing", "", 8, 0, {}, {}},
        {"both cases of letters", "0A1b", 8, 2, {0x0A, 0x1B}, {}},
        {"every digit",
         "0123456789abcdefABCDEF",
         16,
         11,
         {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF},
         {}},
        {"an odd digit at the end", "0A1", 8, 1, {0x0A}, {}},
        {"a single digit", "7", 8, 0, {}, {}},
        {"one more than max_size", "AABBCC", 1, 2, {0xAA, 0xBB}, {}},
        {"max_size 0", "AABBCC", 0, 1, {0xAA}, {}},
        {"max_size below 0", "AABBCC", -1, 0, {}, {}},
        {"garbage behind the limit is not looked at", "AABB!", 1, 2, {0xAA, 0xBB}, {}},
        {"a line end after max_size pairs",
         "AABB\n",
         2,
         0,
         {0xAA, 0xBB},
         {"string_to_uint8_arr: Invalid input data: [0A]"}},
        {"a digit after max_size pairs", "AABBA", 2, 2, {0xAA, 0xBB}, {}},
        {"no digit", "0G", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [47]"}},
        {"bytes before it stay",
         "01020G",
         8,
         0,
         {0x01, 0x02},
         {"string_to_uint8_arr: Invalid input data: [47]"}},
        {"a blank", "01 02", 8, 0, {0x01}, {"string_to_uint8_arr: Invalid input data: [20]"}},
        {"a hexadecimal prefix", "0x01", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [78]"}},
        {"a byte above 7F", "\xC3\xA4", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [FFFFFFC3]"}},
        {"before 0", "/", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [2F]"}},
        {"after 9", ":", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [3A]"}},
        {"before A", "@", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [40]"}},
        {"before a", "`", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [60]"}},
        {"after f", "g", 8, 0, {}, {"string_to_uint8_arr: Invalid input data: [67]"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        bytes buffer(16, 0xEE);
        EXPECT_EQ(string_to_uint8_arr(c.text, buffer.data(), c.max_size), c.returned);
        bytes expected = c.written;
        expected.resize(buffer.size(), 0xEE);
        EXPECT_EQ(buffer, expected);
        EXPECT_EQ(log.messages("main"), c.logged);
    }
}

TEST(string_to_uint8_arr, knows_every_character)
{
    for (int c = 1; c < 256; ++c) {
        const char text[] = {'0', static_cast<char>(c), '\0'};
        uint8_t decoded = 0xEE;
        const bool digit = isxdigit(c) != 0;
        EXPECT_EQ(string_to_uint8_arr(text, &decoded, 1), digit ? 1 : 0) << c;
        EXPECT_EQ(decoded, digit ? strtol(text, nullptr, 16) : 0xEE) << c;
    }
}

TEST(hex_to_bytes, reads_the_whole_text_or_none)
{
    using bytes = std::vector<uint8_t>;
    const struct {
        const char* given;
        std::string text;
        bytes then; // as far as it was read
        std::vector<std::string> logged;
    } cases[] = {
        {"nothing", "", {}, {}},
        {"both cases of letters", "0A1bFfeE", {0x0A, 0x1B, 0xFF, 0xEE}, {}},
        {"an odd digit at the end", "0A1", {0x0A}, {}},
        {"a single digit", "7", {}, {}},
        {"no digit in front", "G0", {}, {"string_to_uint8_arr: Invalid input data: [47]"}},
        {"no digit behind one", "0A1G", {0x0A}, {"string_to_uint8_arr: Invalid input data: [47]"}},
        {"two that are none: the first is told", "xy", {}, {"string_to_uint8_arr: Invalid input data: [78]"}},
        {"none alone at the end", "0A\n", {0x0A}, {"string_to_uint8_arr: Invalid input data: [0A]"}},
        {"a byte above 7F", "\xC3\xA4", {}, {"string_to_uint8_arr: Invalid input data: [FFFFFFC3]"}},
    };
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        bytes buffer(16, 0xEE);
        EXPECT_EQ(hex_to_bytes(c.text, buffer.data()), c.logged.empty());
        bytes expected = c.then;
        expected.resize(buffer.size(), 0xEE);
        EXPECT_EQ(buffer, expected);
        EXPECT_EQ(log.messages("main"), c.logged);
    }
}

TEST(hex_to_bytes, does_not_look_behind_the_text)
{
    uint8_t decoded = 0xEE;
    EXPECT_TRUE(hex_to_bytes(std::string_view{"0A!"}.substr(0, 2), &decoded));
    EXPECT_EQ(decoded, 0x0A);
}

TEST(hex_to_bytes, knows_every_character)
{
    for (int c = 0; c < 256; ++c)
        for (const bool first : {false, true}) {
            const char text[] = {first ? static_cast<char>(c) : '0', first ? '0' : static_cast<char>(c)};
            uint8_t decoded = 0xEE;
            const bool digit = isxdigit(c) != 0;
            EXPECT_EQ(hex_to_bytes({text, 2}, &decoded), digit) << c;
            const char digits[] = {text[0], text[1], '\0'};
            EXPECT_EQ(decoded, digit ? strtol(digits, nullptr, 16) : 0xEE) << c;
        }
}

} // namespace rtls
