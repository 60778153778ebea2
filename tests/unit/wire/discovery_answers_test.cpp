#include "wire/discovery_answers.h"

#include "base/hex.h"
#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <vector>

namespace rtls {

static in_addr address_of(const char* text)
{
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return address;
}

TEST(discovery_answers, are_the_address_and_the_port_in_network_order)
{
    EXPECT_EQ(to_hex(discovery_echo_answer(address_of("192.168.1.20"), 4000)), "C0A801140FA0");
    EXPECT_EQ(to_hex(discovery_echo_answer(address_of("255.0.254.1"), 65535)), "FF00FE01FFFF");
    const std::vector<uint8_t> request{1, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    EXPECT_EQ(to_hex(discovery_address_answer(request, address_of("10.0.0.5"), 4000)),
              digits("01 1122334455667788 0A000005 0FA0"));
}

} // namespace rtls
