#include "base/prefix_list.h"

#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

namespace rtls {

static in_addr address_of(const char* text)
{
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address;
}

TEST(prefix_list, an_empty_list_holds_nobody)
{
    EXPECT_TRUE(prefix_list{}.empty());
    EXPECT_FALSE(prefix_list{}.contains(address_of("127.0.0.1")));
}

TEST(prefix_list, networks_by_their_first_bits)
{
    const auto list = parse_networks("10.0.0.0/8, 192.168.1.7\t172.16.0.0/12,198.51.100.128/25");
    ASSERT_TRUE(list);
    for (const char* inside : {"10.0.0.0", "10.255.255.255", "192.168.1.7", "172.16.0.1", "172.31.255.255",
                               "198.51.100.128", "198.51.100.255"})
        EXPECT_TRUE(list->contains(address_of(inside))) << inside;
    for (const char* outside : {"9.255.255.255", "11.0.0.0", "192.168.1.6", "192.168.1.8", "172.15.255.255",
                                "172.32.0.0", "198.51.100.127", "198.51.101.128"})
        EXPECT_FALSE(list->contains(address_of(outside))) << outside;
}

TEST(prefix_list, bits_behind_the_prefix_do_not_count)
{
    const auto list = parse_networks("10.1.2.3/8");
    ASSERT_TRUE(list);
    EXPECT_TRUE(list->contains(address_of("10.9.9.9")));
}

TEST(prefix_list, all_addresses_are_a_network_too)
{
    const auto list = parse_networks("0.0.0.0/0");
    ASSERT_TRUE(list);
    EXPECT_FALSE(list->empty());
    EXPECT_TRUE(list->contains(address_of("255.255.255.255")));
}

TEST(prefix_list, a_misprint_is_no_list)
{
    for (const char* text :
         {"", " ", ",", "10", "10.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/8x", "10.0.0.0/-1",
          "10.0.0.256", "10.0.0.0/8;11.0.0.0/8", "localhost", "::1", "/8", "10.0.0.1, x"})
        EXPECT_FALSE(parse_networks(text)) << text;
}

TEST(prefix_list, macs_and_their_ranges)
{
    const auto list = parse_macs("0012AB0000000001, 00:12:ac:00:00:00:00:00/24");
    ASSERT_TRUE(list);
    EXPECT_TRUE(list->contains(hex("00 12 AB 00 00 00 00 01")));
    EXPECT_FALSE(list->contains(hex("00 12 AB 00 00 00 00 02")));
    EXPECT_TRUE(list->contains(hex("00 12 AC FF FF FF FF FF")));
    EXPECT_FALSE(list->contains(hex("00 12 AD 00 00 00 00 01")));
}

TEST(prefix_list, half_a_mac_is_no_list)
{
    for (const char* text : {"", "0012AB00000000", "0012AB000000000", "0012AB000000000100",
                             "0012AB00000000xy", "0012AB0000000001/65", "0012AB0000000001/"})
        EXPECT_FALSE(parse_macs(text)) << text;
}

} // namespace rtls
