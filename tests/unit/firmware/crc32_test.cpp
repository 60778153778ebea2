#include "firmware/crc32.h"

#include "base/logger.h"
#include "support/bitwise_crc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace rtls {

namespace {

std::vector<uint8_t> random_bytes(size_t count)
{
    std::mt19937 random(7);
    std::vector<uint8_t> bytes(count);
    for (auto& b : bytes)
        b = static_cast<uint8_t>(random());
    return bytes;
}

} // namespace

TEST(crc32_byte, is_the_crc_of_ieee_802_3)
{
    const struct {
        const char* bytes;
        uint32_t crc;
    } cases[] = {
        {"", 0x00000000},
        {"1", 0x83DCEFB7},
        {"a", 0xE8B7BE43},
        {"1234567", 0x5003699F},
        {"12345678", 0x9AE0DAAF},
        {"123456789", 0xCBF43926},
        {"The quick brown fox jumps over the lazy dog", 0x414FA339},
    };
    for (const auto& c : cases)
        EXPECT_EQ(
            crc32_byte(reinterpret_cast<const uint8_t*>(c.bytes), static_cast<uint32_t>(strlen(c.bytes))),
            c.crc)
            << c.bytes;
    const uint8_t zero = 0;
    EXPECT_EQ(crc32_byte(&zero, 1), 0xD202EF8DU);
}

TEST(crc32_byte, agrees_with_the_bit_by_bit_definition_at_every_length_and_alignment)
{
    const auto bytes = random_bytes(80);
    for (size_t start = 0; start < 8; ++start)
        for (size_t length = 0; length + start <= bytes.size(); ++length)
            ASSERT_EQ(crc32_byte(&bytes[start], static_cast<uint32_t>(length)),
                      standard_crc(bytes_view{bytes}.subspan(start, length)))
                << length << " bytes from " << start;
}

TEST(crc32_byte, of_a_null_pointer_is_0_without_a_logger_too)
{
    ASSERT_EQ(g_logger, nullptr);
    EXPECT_EQ(crc32_byte(nullptr, 1), 0U);
}

TEST(crc32_uninverted, agrees_with_the_bit_by_bit_definition_at_every_length_and_alignment)
{
    const auto bytes = random_bytes(80);
    for (size_t start = 0; start < 8; ++start)
        for (size_t length = 0; length + start <= bytes.size(); ++length)
            ASSERT_EQ(crc32_uninverted(bytes_view{bytes}.subspan(start, length)),
                      crc_remainder(bytes_view{bytes}.subspan(start, length)))
                << length << " bytes from " << start;
}

} // namespace rtls
