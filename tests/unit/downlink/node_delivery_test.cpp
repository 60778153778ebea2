#include "downlink/node_delivery.h"

#include "base/hex.h"
#include "support/hex_bytes.h"
#include "support/node_command_fixture.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace rtls {

namespace {

const std::string mac = "E4000000000000A1";
const bytes_t frame = hex("0E 08 07");

} // namespace

class node_delivery : public node_command_fixture {
protected:
    std::optional<node_route> route() { return find_route(server, hex(mac)); }

    WIN_CLIENT_t* one = add_bridge("0000000001");
    WIN_CLIENT_t* two = add_bridge("0000000002");
};

TEST_F(node_delivery, a_route_is_a_copy_of_what_the_registry_says)
{
    for (const bool forwarded_ip : {false, true})
        for (const bool direct_mask : {false, true}) {
            add_node(mac, {two, forwarded_ip, direct_mask});
            const auto found = route();
            ASSERT_TRUE(found);
            ASSERT_TRUE(found->client);
            EXPECT_EQ(to_hex(bytes_view{found->client->bytes}.first(found->client->size)), "0000000002");
            EXPECT_EQ(to_hex(found->ip_addr), node_ip);
            EXPECT_EQ(found->forwarded_ip, forwarded_ip);
            EXPECT_EQ(found->direct_mask, direct_mask);
        }
    const auto before = route();
    remove_node(mac);
    send_to_node(server, *before, frame);
    EXPECT_EQ(sent_to(two), texts_t{to_hex(frame)}) << "whatever becomes of the node meanwhile";
}

TEST_F(node_delivery, no_node_no_route)
{
    add_node(mac, {one});
    EXPECT_FALSE(find_route(server, hex("E4000000000000A2")));
    remove_node(mac);
    EXPECT_FALSE(route());
}

TEST_F(node_delivery, a_node_with_a_bridge_of_its_own_is_sent_through_it_whoever_asked)
{
    add_node(mac, {one});
    send_to_node(server, *route(), frame, two);
    EXPECT_EQ(sent_to(one), texts_t{to_hex(frame)});
    EXPECT_EQ(sent_to(two), texts_t{});
}

TEST_F(node_delivery, a_node_without_one_is_sent_through_who_asked_or_through_all)
{
    add_node(mac, {});
    ASSERT_TRUE(route());
    EXPECT_FALSE(route()->client);
    send_to_node(server, *route(), frame, two);
    EXPECT_EQ(sent_to(one), texts_t{});
    EXPECT_EQ(sent_to(two), texts_t{to_hex(frame)});
    send_to_node(server, *route(), frame);
    EXPECT_EQ(sent_to(one), texts_t{to_hex(frame)});
    EXPECT_EQ(sent_to(two), texts_t{to_hex(frame)});
}

TEST_F(node_delivery, what_is_for_a_bridge_that_is_gone_goes_nowhere)
{
    add_node(mac, {one});
    const auto known = route();
    disconnect("0000000001");
    send_to_node(server, *known, frame, two);
    EXPECT_EQ(sent_to(two), texts_t{});
}

} // namespace rtls
