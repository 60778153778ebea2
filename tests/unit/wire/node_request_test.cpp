#include "wire/node_request.h"

#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <vector>

namespace rtls {

namespace {

node_route node_with(bool forwarded_ip, bool direct_mask)
{
    node_route node{};
    for (size_t i = 0; i < ip_addr_size; ++i)
        node.ip_addr[i] = static_cast<uint8_t>(0xA0 + i);
    node.forwarded_ip = forwarded_ip;
    node.direct_mask = direct_mask;
    return node;
}

// A frame built into a heap buffer that has not a byte to spare.
std::string frame_of(const node_route& node, bytes_view message, bytes_view mac)
{
    const size_t size = message.size() + ip_addr_size + (node.forwarded_ip ? 5 + mac.size() : 0);
    bytes_t out(size);
    EXPECT_EQ(node_request_frame(out, node, message, mac), size);
    return to_hex(out);
}

const std::string ip = "A0A1A2A3A4A5A6A7A8A9AAABACADAEAF";

} // namespace

TEST(node_request, the_nodes_record_selects_the_form)
{
    const struct {
        const char* given;
        bool forwarded_ip, direct_mask;
        const char* message;
        const char* mac;
        std::string then;
    } cases[] = {
        {"known by address", false, false, "0E08070003AABBCC", "1122334455667788", "0E08070003AABBCC" + ip},
        {"known by address, reached directly: no wrapper to mark", false, true, "0E08070000",
         "1122334455667788", "0E08070000" + ip},
        {"forwarded", true, false, "0E08070003AABBCC", "1122334455667788",
         digits("0008000008 0E08070003AABBCC 1122334455667788") + ip},
        {"forwarded, reached directly", true, true, "0E08070003AABBCC", "1122334455667788",
         digits("0028000008 0E08070003AABBCC 1122334455667788") + ip},
        {"forwarded, no MAC", true, false, "0008070003", "", digits("0008000005 0008070003") + ip},
        {"forwarded, reached directly, no MAC", true, true, "0008070003", "",
         digits("0028000005 0008070003") + ip},
        {"no message at all", true, false, "", "1122334455667788",
         digits("0008000000 1122334455667788") + ip},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(frame_of(node_with(c.forwarded_ip, c.direct_mask), hex(c.message), hex(c.mac)), c.then);
    }
}

TEST(node_request, the_route_is_a_copy_of_the_nodes_record)
{
    const bytes_t id = hex("0012345678");
    zframe_ptr frame{zframe_new(id.data(), id.size())};
    for (const bool flag : {false, true}) {
        NODE_t node{};
        node.win_client_id.reset(zframe_dup(frame.get()));
        std::iota(std::begin(node.ip_addr), std::end(node.ip_addr), uint8_t{0xA0});
        node.forwarded_ip = flag;
        node.direct_mask = !flag;
        const node_route route = route_of(node);
        ASSERT_TRUE(route.client);
        EXPECT_EQ(bytes_t(route.client->bytes.begin(), route.client->bytes.begin() + route.client->size), id);
        EXPECT_EQ(to_hex(route.ip_addr), ip);
        EXPECT_EQ(route.forwarded_ip, flag);
        EXPECT_EQ(route.direct_mask, !flag);
    }
    EXPECT_FALSE(route_of(NODE_t{}).client);
}

TEST(node_request, a_copied_route_has_an_identity_of_its_own)
{
    for (const size_t size : {size_t{0}, size_t{5}, size_t{255}, size_t{300}}) {
        SCOPED_TRACE(size);
        const bytes_t id = ramp(size);
        const bytes_t kept(id.begin(), id.begin() + static_cast<long>(std::min<size_t>(size, 255)));
        node_route route{};
        route.client.emplace(id);
        node_route copy = route;
        route.client.emplace(hex("AA BB"));
        EXPECT_EQ(to_hex(copy.client->view()), to_hex(kept));
        copy = route;
        EXPECT_EQ(to_hex(copy.client->view()), "AABB");
        copy.client = *&copy.client;
        EXPECT_EQ(to_hex(copy.client->view()), "AABB");
    }
}

TEST(node_request, the_wrapper_counts_the_message_in_network_order)
{
    for (const size_t size : {1u, 255u, 256u, 792u, 65527u}) {
        const bytes_t message(size, 0x5A);
        bytes_t out(size + node_request_overhead);
        const bytes_t mac(mac_size, 0x11);
        EXPECT_EQ(node_request_wrapped(out, node_with(true, false), message, mac), out.size());
        EXPECT_EQ(load_be16(out, 3), size);
        EXPECT_EQ(bytes_t(out.begin() + 5, out.begin() + 5 + static_cast<long>(size)), message);
    }
}

TEST(node_request, the_direct_form_ignores_how_the_node_is_reached)
{
    bytes_t out(3 + ip_addr_size);
    EXPECT_EQ(node_request_direct(out, node_with(true, true), hex("100809")), out.size());
    EXPECT_EQ(to_hex(out), "100809" + ip);
}

} // namespace rtls
