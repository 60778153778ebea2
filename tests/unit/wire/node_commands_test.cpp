#include "wire/node_commands.h"

#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <optional>

namespace rtls {

static constexpr mac_array mac{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x1A, 0x2B};

template <typename Container>
static bytes_t bytes_of(const Container& request)
{
    return {request.begin(), request.end()};
}

TEST(node_commands, reboot)
{
    EXPECT_EQ(bytes_of(make_reboot_request(mac)),
              hex("0E 08 00 00 06 00 01 00 02 00 00 00 01 02 03 04 05 1A 2B"));
}

TEST(node_commands, apply)
{
    EXPECT_EQ(bytes_of(make_apply_request(mac)), hex("0E 08 00 00 02 00 11 00 01 02 03 04 05 1A 2B"));
}

TEST(node_commands, set)
{
    const offered_image image{0x0102A0FF, 0xCAFE0123, 0x1'0003'E8FF}; // the size is beyond 32 bits
    const struct {
        const char* given;
        std::optional<uint16_t> source;
        bytes_t then;
    } cases[] = {
        {"passive", std::nullopt,
         hex("0E 08 00 00 10 00 0E 20 0C 01 02 A0 FF CA FE 01 23 00 03 E8 FF 00 01 02 03 04 05 1A 2B")},
        {"from the gateway", 0,
         hex("0E 08 00 00 12 00 0E 20 0E 01 02 A0 FF CA FE 01 23 00 03 E8 FF 00 00 00 01 02 03 04 05 1A 2B")},
        {"from a node", 0xBEEF,
         hex("0E 08 00 00 12 00 0E 20 0E 01 02 A0 FF CA FE 01 23 00 03 E8 FF BE EF 00 01 02 03 04 05 1A 2B")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(make_set_request(image, c.source, mac), c.then) << c.given;
}

} // namespace rtls
