#include "support/test_gateway.h"
#include "server/win_server.h"

#include "base/hex.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "support/sock.h"
#include "support/stop.h"
#include "support/temp_file.h"
#include "support/wait.h"
#include "terminal/terminal_server.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace rtls {

static void require(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error("test_gateway: " + std::string{what});
}

sockaddr_in ipv4_address(const char* ip, uint16_t port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    require(inet_pton(AF_INET, ip, &addr.sin_addr) == 1, "no such address");
    return addr;
}

static void* gateway_from(const gateway_config& config)
{
    const temp_file file{"gateway.conf", config.text()};
    void* gateway = rtls_gateway_new(file.path());
    require(gateway != nullptr, "no gateway");
    return gateway;
}

test_gateway::test_gateway(gateway_config config)
    : m_config(std::move(config)), m_handle(gateway_from(m_config))
{
}

static void wait_until_free(const char* endpoint)
{
    const zsock_ptr sock{zsock_new(ZMQ_PAIR)};
    if (!wait_until([&] { return zsock_bind(sock.get(), "%s", endpoint) == 0; })) {
        fprintf(stderr, "test_gateway: somebody still holds %s\n", endpoint);
        abort();
    }
    zsock_unbind(sock.get(), "%s", endpoint); // this gives the name up at once
}

test_gateway::~test_gateway()
{
    stop();
    clear_stop();
    wait_until_free("inproc://winserw_channel");
    wait_until_free("inproc://dbg_dump");
}

void test_gateway::stop()
{
    rtls_gateway_destroy(&m_handle);
}

NODES_CONTAINER_t* test_gateway::nodes() const
{
    return static_cast<NODES_CONTAINER_t*>(rtls_gateway_get_nodes_container(m_handle));
}

WIN_SERVER_t& test_gateway::win_server() const
{
    return *static_cast<WIN_SERVER_t*>(rtls_gateway_get_win_server(m_handle));
}

void test_gateway::run_terminal_server()
{
    void* server = rtls_gateway_get_terminal_server(m_handle);
    require(terminal_server_run(server), "terminal_server_run");
    require(wait_until([=] { return terminal_server_is_ready(server); }), "the terminal server is not ready");
}

void test_gateway::run_win_server()
{
    void* server = rtls_gateway_get_win_server(m_handle);
    require(win_server_run(server), "win_server_run");
    require(wait_until([=] { return win_server_is_ready(server); }), "the WIN server is not ready");
}

WIN_CLIENT_t* test_gateway::add_bridge(bytes_view identity)
{
    const zframe_ptr id{zframe_new(identity.data(), identity.size())};
    win_client_ptr made{win_client_new(id.get())};
    require(made != nullptr, "win_client_new");
    WIN_CLIENT_t* client = win_server().clients.insert(to_hex(identity).c_str(), std::move(made));
    require(client != nullptr, "a place in the table");
    return client;
}

WIN_CLIENT_t* test_gateway::add_bridge(std::string_view identity, bytes_view mac, const char* ip,
                                       uint16_t port)
{
    WIN_CLIENT_t* client = add_bridge({reinterpret_cast<const uint8_t*>(identity.data()), identity.size()});
    client->addr = ipv4_address(ip, port);
    std::memcpy(client->mac_addr, mac.data(), mac_size);
    return client;
}

void test_gateway::add_node(bytes_view mac, std::string_view bridge_identity,
                            const std::function<void(NODE_t&)>& change)
{
    const nodes_guard guard{*nodes()};
    NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), mac.data(), nullptr, 0);
    require(node != nullptr, "no node");
    node->lifetime = 300;
    if (!bridge_identity.empty()) {
        const zframe_ptr id{zframe_new(bridge_identity.data(), bridge_identity.size())};
        node_update_win_client_ID(node, id.get());
    }
    if (change)
        change(*node);
}

} // namespace rtls
