#include "net/own_addresses.h"

#include <gtest/gtest.h>

#include <ifaddrs.h>

#include <cstdint>
#include <memory>

namespace rtls {

static in_addr address_of(uint32_t host_order)
{
    return {htonl(host_order)};
}

TEST(own_addresses, are_the_loopback_and_those_of_every_interface)
{
    own_addresses own;
    for (const uint32_t address : {0x7F000001U, 0x7F000003U, 0x7FFFFFFEU})
        EXPECT_TRUE(own.contain(address_of(address), 0));
    ifaddrs* first = nullptr;
    ASSERT_EQ(getifaddrs(&first), 0);
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list{first, freeifaddrs};
    for (const ifaddrs* item = first; item; item = item->ifa_next)
        if (item->ifa_addr && item->ifa_addr->sa_family == AF_INET) {
            EXPECT_TRUE(own.contain(reinterpret_cast<const sockaddr_in*>(item->ifa_addr)->sin_addr, 0));
        }
    EXPECT_FALSE(own.contain(address_of(0xC0000201), 0)); // 192.0.2.1 is nobody's
    EXPECT_FALSE(own.contain(address_of(0xC0000201), 5000));
    EXPECT_FALSE(own.contain(address_of(0), 0));
}

} // namespace rtls
