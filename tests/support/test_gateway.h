// test_gateway - a real gateway of a test's own, read from a configuration file; nothing is started yet.
//
// Threads    The test's own, beside those of the actors it starts.
// Failures   Throws std::runtime_error when something cannot be made or does not get ready.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"
#include "registry/node.h"
#include "support/gateway_config.h"

#include <cstdint>
#include <functional>
#include <string_view>

namespace rtls {

class test_gateway {
public:
    explicit test_gateway(gateway_config config = {});
    // Ends it as stop() does, takes the actors' stop request back, and waits until the names that the
    // actors' sockets had in this process are free for the next gateway: a closed socket gives its name
    // up some time later. Nobody else may hold them then.
    ~test_gateway();
    test_gateway(const test_gateway&) = delete;
    test_gateway& operator=(const test_gateway&) = delete;

    void run_terminal_server(); // and waits until it is ready
    void run_win_server();
    void stop(); // destroys the gateway; the handle is null from then on

    void* handle() const { return m_handle; }
    NODES_CONTAINER_t* nodes() const;
    WIN_SERVER_t& win_server() const;
    const gateway_config& config() const { return m_config; }
    uint16_t terminal_port() const { return m_config.port("ports/terminal"); }
    uint16_t win_port() const { return m_config.port("ports/win"); }

    // A bridge in the WIN server's table (which must not run) that nobody is connected for: what is sent
    // to it waits in its unsent messages. It lives as long as the gateway.
    WIN_CLIENT_t* add_bridge(bytes_view identity);
    WIN_CLIENT_t* add_bridge(std::string_view identity, bytes_view mac, const char* ip, uint16_t port);
    // A node in the registry: alive, reached through the bridge with this identity (if any).
    void add_node(bytes_view mac, std::string_view bridge_identity = {},
                  const std::function<void(NODE_t&)>& change = {});

private:
    gateway_config m_config;
    void* m_handle;
};

sockaddr_in ipv4_address(const char* ip, uint16_t port);

} // namespace rtls
