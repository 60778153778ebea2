#include "base/peer.h"

#include "support/tcp_listener.h"
#include "support/tcp_peer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace rtls {

TEST(identity_key, is_upper_case_hex_of_any_identity)
{
    const std::vector<uint8_t> usual{0x00, 0xAB, 0x0C, 0xDE, 0xFF};
    EXPECT_STREQ(identity_key{usual}.c_str(), "00AB0CDEFF");
    EXPECT_STREQ(identity_key{std::vector<uint8_t>{}}.c_str(), "");
    const std::vector<uint8_t> longest(255, 0x5A);
    EXPECT_EQ(std::string{identity_key{longest}.c_str()}.size(), 510U);
    const std::vector<uint8_t> longer(300, 0x5A);
    EXPECT_STREQ(identity_key{longer}.c_str(), identity_key{longest}.c_str());
}

TEST(ipv4_text, is_the_dotted_form)
{
    for (const char* text : {"0.0.0.0", "127.0.0.1", "255.255.255.255", "10.20.30.4"}) {
        sockaddr_in peer{};
        ASSERT_EQ(inet_pton(AF_INET, text, &peer.sin_addr), 1);
        EXPECT_STREQ(ipv4_text{peer.sin_addr}.c_str(), text);
        EXPECT_STREQ(ipv4_text{peer}.c_str(), text);
    }
}

TEST(ipv6_text, is_the_shortest_form)
{
    for (const char* text : {"::", "::1", "fe80::a2a3:a4a5:a6a7:a8a9", "2001:db8::e601:203:405:601",
                             "1111:2222:3333:4444:5555:6666:7777:8888", "::ffff:127.0.0.1"}) {
        uint8_t address[16];
        ASSERT_EQ(inet_pton(AF_INET6, text, address), 1);
        EXPECT_STREQ(ipv6_text{address}.c_str(), text);
    }
}

TEST(colon_mac_text, has_the_colon_inside_byte_five)
{
    const uint8_t mac[] = {0xAB, 0xCD, 0xEF, 0x01, 0x2A, 0xBC, 0xDE, 0x3F};
    EXPECT_STREQ(colon_mac_text{mac}.c_str(), "abcdef012ab:cde3f");
    const uint8_t zeros[8] = {};
    EXPECT_STREQ(colon_mac_text{zeros}.c_str(), "00000000000:00000");
}

TEST(octets_mac_text, has_a_colon_between_bytes)
{
    const uint8_t mac[] = {0xAB, 0xCD, 0xEF, 0x01, 0x2A, 0xBC, 0xDE, 0x3F};
    EXPECT_STREQ(octets_mac_text{mac}.c_str(), "ab:cd:ef:01:2a:bc:de:3f");
}

TEST(frame_bytes, of_no_frame_are_none)
{
    EXPECT_TRUE(frame_bytes(nullptr).empty());
}

TEST(read_peer_address, asks_for_the_other_end_and_leaves_the_address_without_one)
{
    tcp_listener listener;
    const tcp_peer peer{listener.port()};
    const int accepted = listener.accept();
    sockaddr_in address{};
    ASSERT_TRUE(read_peer_address(accepted, listener.port(), address));
    EXPECT_STREQ(ipv4_text{address}.c_str(), "127.0.0.1");
    EXPECT_EQ(ntohs(address.sin_port), peer.port());

    sockaddr_in untouched = address;
    const auto other_port = static_cast<in_port_t>(listener.port() ^ 1);
    EXPECT_FALSE(read_peer_address(accepted, other_port, untouched)) << "a connection of another port";
    close(accepted);
    EXPECT_FALSE(read_peer_address(accepted, listener.port(), untouched)) << "it is closed";
    EXPECT_FALSE(read_peer_address(-1, listener.port(), untouched));
    EXPECT_EQ(untouched.sin_port, address.sin_port);
    EXPECT_EQ(untouched.sin_addr.s_addr, address.sin_addr.s_addr);
}

} // namespace rtls
