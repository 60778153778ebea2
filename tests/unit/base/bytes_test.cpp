#include "base/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

namespace rtls {

// The verbs work at compile time, too.
static constexpr std::array<uint8_t, 6> stream{0x00, 0x12, 0x34, 0x56, 0x78, 0xFF};
static_assert(load_le16(stream, 1) == 0x3412 && load_be16(stream, 1) == 0x1234);
static_assert(load_be64(std::array<uint8_t, 9>{9, 1, 2, 3, 4, 5, 6, 7, 0x88}, 1) == 0x0102030405060788);
static_assert(load_le32(stream, 1) == 0x78563412 && load_be32(stream, 1) == 0x12345678);

TEST(bytes, loads_name_their_byte_order)
{
    const uint8_t bytes[] = {0x80, 0xFF, 0x01, 0xFE};
    EXPECT_EQ(load_le16(bytes, 0), 0xFF80);
    EXPECT_EQ(load_be16(bytes, 0), 0x80FF);
    EXPECT_EQ(load_le16(bytes, 2), 0xFE01);
    EXPECT_EQ(load_be16(bytes, 2), 0x01FE);
    EXPECT_EQ(load_le32(bytes, 0), 0xFE01FF80U);
    EXPECT_EQ(load_be32(bytes, 0), 0x80FF01FEU);
}

TEST(bytes, stores_name_their_byte_order_and_touch_only_their_bytes)
{
    using bytes = std::vector<uint8_t>;
    const struct {
        const char* verb;
        void (*store)(bytes_span);
        bytes expected;
    } cases[] = {
        {"le16", [](bytes_span b) { store_le16(b, 1, 0x80FE); }, {0xEE, 0xFE, 0x80, 0xEE, 0xEE, 0xEE}},
        {"be16", [](bytes_span b) { store_be16(b, 1, 0x80FE); }, {0xEE, 0x80, 0xFE, 0xEE, 0xEE, 0xEE}},
        {"be32", [](bytes_span b) { store_be32(b, 1, 0x8001FE7F); }, {0xEE, 0x80, 0x01, 0xFE, 0x7F, 0xEE}},
        {"at the end", [](bytes_span b) { store_be16(b, 4, 0x0102); }, {0xEE, 0xEE, 0xEE, 0xEE, 0x01, 0x02}},
    };
    bytes eight(10, 0xEE);
    store_be64(eight, 1, 0x8001FE7F00112233);
    EXPECT_EQ(eight, (bytes{0xEE, 0x80, 0x01, 0xFE, 0x7F, 0x00, 0x11, 0x22, 0x33, 0xEE}));
    for (const auto& c : cases) {
        bytes buffer(6, 0xEE);
        c.store(buffer);
        EXPECT_EQ(buffer, c.expected) << c.verb;
    }
}

TEST(bytes, what_was_stored_loads_again)
{
    std::mt19937 random(11);
    std::array<uint8_t, 8> buffer{};
    for (int i = 0; i < 1000; ++i) {
        const auto value = static_cast<uint32_t>(random());
        const size_t at = random() % 5;
        store_be32(buffer, at, value);
        EXPECT_EQ(load_be32(buffer, at), value);
        store_le16(buffer, at, static_cast<uint16_t>(value));
        EXPECT_EQ(load_le16(buffer, at), static_cast<uint16_t>(value));
        store_be16(buffer, at, static_cast<uint16_t>(value));
        EXPECT_EQ(load_be16(buffer, at), static_cast<uint16_t>(value));
    }
}

TEST(bytes, store_bytes_copies_all_to_the_offset)
{
    std::vector<uint8_t> to(4, 0xEE);
    store_bytes(to, 1, std::array<uint8_t, 2>{0x01, 0x02});
    EXPECT_EQ(to, (std::vector<uint8_t>{0xEE, 0x01, 0x02, 0xEE}));
    store_bytes(to, 4, {});
    store_bytes({}, 0, {});
    EXPECT_EQ(to, (std::vector<uint8_t>{0xEE, 0x01, 0x02, 0xEE}));
}

} // namespace rtls
