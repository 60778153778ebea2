#include "wire/slip.h"

#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace rtls {

static bytes_t encoded(bytes_view message)
{
    bytes_t out(slip_encoded_limit(message.size()));
    out.resize(slip_encode(message, out.data()));
    return out;
}

// The rule, a byte at a time.
static bytes_t encoded_by_rule(bytes_view message)
{
    bytes_t out{slip_start};
    for (const uint8_t b : message) {
        if (slip_is_special(b))
            out.push_back(slip_esc);
        out.push_back(b);
    }
    out.push_back(slip_end);
    return out;
}

TEST(slip_encoder, messages_become_frames)
{
    const struct {
        const char* given;
        const char* message;
        const char* then;
    } cases[] = {
        {"nothing", "", "F5 F7"},
        {"a special byte inside", "01 F5 02", "F5 01 F6 F5 02 F7"},
        {"all special bytes", "F5 F6 F7", "F5 F6 F5 F6 F6 F6 F7 F7"},
        {"the neighbours of the special bytes", "F4 F8", "F5 F4 F8 F7"},
        {"seven bytes", "01 02 03 04 05 06 07", "F5 01 02 03 04 05 06 07 F7"},
        {"eight bytes", "01 02 03 04 05 06 07 08", "F5 01 02 03 04 05 06 07 08 F7"},
        {"nine bytes, the last one special", "01 02 03 04 05 06 07 08 F7",
         "F5 01 02 03 04 05 06 07 08 F6 F7 F7"},
        {"a firmware update command", "18 01 00", "F5 18 01 00 F7"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(encoded(hex(c.message)), hex(c.then)) << c.given;
}

TEST(slip_encoder, every_byte_at_every_place_is_framed_by_the_rule)
{
    for (unsigned value = 0; value < 256; ++value)
        for (size_t at = 0; at < 17; ++at) {
            bytes_t message(17, 0x75); // F5 without its top bit
            message[at] = static_cast<uint8_t>(value);
            ASSERT_EQ(encoded(message), encoded_by_rule(message)) << value << " at " << at;
        }
}

TEST(slip_encoder, random_messages_are_framed_by_the_rule)
{
    std::mt19937 random{20240501};
    std::uniform_int_distribution<size_t> size{0, 300};
    std::uniform_int_distribution<int> near_special{0xF0, 0xFF};
    for (int round = 0; round < 2000; ++round) {
        bytes_t message(size(random));
        std::ranges::generate(message, [&] { return static_cast<uint8_t>(near_special(random)); });
        ASSERT_EQ(encoded(message), encoded_by_rule(message));
    }
}

TEST(slip_encoder, special_bytes_alone_take_all_the_room)
{
    for (const size_t size : {1u, 8u, 1000u})
        EXPECT_EQ(encoded(bytes_t(size, slip_end)).size(), slip_encoded_limit(size));
}

TEST(slip_ordinary_run, ends_before_the_first_special_byte)
{
    for (size_t size = 0; size < 40; ++size) {
        EXPECT_EQ(slip_ordinary_run(bytes_t(size, 0x76)), size);
        for (size_t at = 0; at < size; ++at)
            for (const uint8_t special : {slip_start, slip_esc, slip_end}) {
                bytes_t bytes(size, 0xF8);
                bytes[at] = special;
                bytes.back() = at + 1 == size ? special : slip_start;
                ASSERT_EQ(slip_ordinary_run(bytes), at) << size;
            }
    }
}

} // namespace rtls
