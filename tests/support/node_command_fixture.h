// node_command_fixture - a gateway with bridges and nodes, and everything that it would send to them.
//
// The WIN port is a stream socket that nobody is connected to, so each message for a bridge ends in the
// bridge's cache of unsent messages: what was sent can be read there, without a network.
// Threads    The test's own; no actor runs.
// Failures   As test_gateway's.
#pragma once

#include "support/log_capture.h"
#include "support/test_gateway.h"
#include "support/texts.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace rtls {

class node_command_fixture : public testing::Test {
protected:
    node_command_fixture();
    ~node_command_fixture() override;

    struct node_options {
        WIN_CLIENT_t* bridge = nullptr; // null: heard of only by way of other clients
        bool forwarded_ip = false;
        bool direct_mask = false;
    };

    // A connected bridge, by ten hex digits of identity.
    WIN_CLIENT_t* add_bridge(const std::string& id);
    void disconnect(const std::string& id);
    // A node with the address `node_ip`.
    void add_node(const std::string& mac, const node_options& options);
    void remove_node(const std::string& mac);

    // What went to the bridge since the last call: the messages as hex, without their framing.
    static texts_t sent_to(WIN_CLIENT_t* bridge);

    // What was logged since the last call: errors and the like, and the lines of a debug section
    // ("PROXY: ..."). That a bridge is not reachable goes without saying here.
    texts_t errors();
    texts_t lines(std::string_view section) { return m_log.messages(section); }

    static constexpr char node_ip[] = "FE80000000000000A1A2A3A4A5A6A7A8";

    log_capture m_log;

private:
    test_gateway m_gateway;

protected:
    void* gateway = m_gateway.handle();
    WIN_SERVER_t* server = &m_gateway.win_server();
    NODES_CONTAINER_t* nodes = m_gateway.nodes();
};

} // namespace rtls
