#include "firmware/crc32.h"

#include "base/logger.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace rtls {

namespace {

// The definition: the remainder of the bytes, bit by bit.
uint32_t remainder(uint32_t crc, const uint8_t* p, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        crc ^= p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
    }
    return crc;
}

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
                      ~remainder(0xFFFFFFFF, &bytes[start], length))
                << length << " bytes from " << start;
}

TEST(crc32_byte, of_a_null_pointer_is_0_and_logged_where_there_is_a_logger)
{
    ASSERT_EQ(g_logger, nullptr);
    EXPECT_EQ(crc32_byte(nullptr, 1), 0U);
    log_capture log;
    EXPECT_EQ(crc32_byte(nullptr, 1), 0U);
    EXPECT_THAT(log.messages("main"), testing::ElementsAre("crc32_byte: null pointer!"));
}

TEST(crc32_uninverted, agrees_with_the_bit_by_bit_definition_at_every_length_and_alignment)
{
    const auto bytes = random_bytes(80);
    for (size_t start = 0; start < 8; ++start)
        for (size_t length = 0; length + start <= bytes.size(); ++length)
            ASSERT_EQ(crc32_uninverted(bytes_view{bytes}.subspan(start, length)),
                      remainder(0, &bytes[start], length))
                << length << " bytes from " << start;
}

} // namespace rtls
