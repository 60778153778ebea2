// A node's address and its bridge belong together: a request that takes one from before and one from after a
// move goes to a bridge that does not know the node, or to another node.
#include "base/hex.h"
#include "downlink/generic_requests.h"
#include "downlink/win_server_pub_sub_proxy.h"
#include "registry/nodes_container.h"
#include "support/proxy_fixture.h"

#include <atomic>
#include <functional>
#include <thread>

namespace rtls {

namespace {

class node_route_lock : public proxy_fixture {
protected:
    struct node_place {
        bytes_t address;
        WIN_CLIENT_t* bridge;
    };
    const node_place m_places[2] = {
        {hex("FE80 0000 0000 0000 1111 1111 1111 1111"), add_bridge("0000000001")},
        {hex("FE80 0000 0000 0000 2222 2222 2222 2222"), add_bridge("0000000002")},
    };

    const bytes_t m_mac = hex(mac);

    void move_to(const node_place& place)
    {
        const nodes_guard guard{*nodes};
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes, m_mac.data(), nullptr, 0);
        nodes_container_set_address(nodes, node, place.address.data(), false);
        node_update_win_client_ID(node, place.bridge->id);
    }
    // So that no command is a repeat.
    void forget_last_command()
    {
        const nodes_guard guard{*nodes};
        nodes_container_find_by_mac(nodes, m_mac.data())->last_data_time = {};
    }

    // Runs the request while another thread moves the node about, as a bridge's messages do.
    void expect_whole_places(unsigned requests, const std::function<bool()>& request)
    {
        move_to(m_places[0]);
        std::atomic<bool> done = false;
        std::thread mover{[&] {
            for (size_t i = 0; !done; ++i)
                move_to(m_places[i % 2]);
        }};
        unsigned sent = 0;
        for (unsigned i = 0; i < requests; ++i) {
            forget_last_command();
            request();
            for (const auto& place : m_places)
                for (const auto& message : sent_to(place.bridge)) {
                    ++sent;
                    EXPECT_TRUE(message.ends_with(to_hex(place.address))) << message;
                }
        }
        done = true;
        mover.join();
        EXPECT_EQ(sent, requests) << "each goes to one of the two";
    }
};

} // namespace

TEST_F(node_route_lock, a_generic_request_goes_to_the_bridge_of_its_address)
{
    const bytes_t request = hex("0E08 07 0003 AABBCC" + mac);
    expect_whole_places(20'000, [&] { return generic_process(server, request.data(), request.size()); });
}

TEST_F(node_route_lock, a_command_goes_to_the_bridge_of_its_address)
{
    for (const char* command : {"0810 C7", "0800 07 0003 0102030405060708 AABBCC",
                                "0804 0A 0B 01 EE 0102030405060708090A0B0C", "080E 07 0003 AABBCC"}) {
        SCOPED_TRACE(command);
        expect_whole_places(2'000, [&] { return process(command + mac); });
    }
}

} // namespace rtls
