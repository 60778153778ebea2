#include "support/idle_gateway.h"

#include "base/hex.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace rtls {

static constexpr char configuration[] = R"(pidfile = /dev/null
debug
    raw = false
    parsing = false
    terminal = false
    win = false
    discovery = false
    develop = false
    ul_tdoa = false
ports
    win = 4000
    discovery = 4001
    terminal = 4002
pub_sub_proxy
    address = 127.0.0.1
    port = 4003
    input_port = 4004
message_handler
    address = 127.0.0.1
    port = 4005
firmware_files = 2
)";

void* new_idle_gateway()
{
    char path[] = "/tmp/idle-gateway-XXXXXX";
    const int file = mkstemp(path);
    if (file == -1 || write(file, configuration, strlen(configuration)) != ssize_t{sizeof configuration - 1})
        return nullptr;
    close(file);
    void* gateway = rtls_gateway_new(path);
    unlink(path);
    return gateway;
}

idle_gateway::idle_gateway() : m_gateway(new_idle_gateway())
{
    if (!m_gateway) {
        fprintf(stderr, "idle_gateway: no gateway\n");
        abort();
    }
    m_server = static_cast<WIN_SERVER_t*>(rtls_gateway_get_win_server(m_gateway));
    m_nodes = rtls_gateway_get_nodes_container(m_gateway);
    m_server->actor_loop = zloop_new();
    m_server->win_sock = zsock_new(ZMQ_STREAM);
    m_server->dbg_client_sock = zsock_new(ZMQ_PUSH);
    m_server->msg_handler_sock = zsock_new(ZMQ_PUSH);
    m_server->proxy_input_sock = zsock_new(ZMQ_PUSH);
    static constexpr uint8_t identity[] = {0x00, 0x11, 0x22, 0x33, 0x44};
    m_bridge = add_bridge(identity);
}

idle_gateway::~idle_gateway()
{
    zloop_destroy(&m_server->actor_loop);
    zsock_destroy(&m_server->win_sock);
    zsock_destroy(&m_server->dbg_client_sock);
    zsock_destroy(&m_server->msg_handler_sock);
    zsock_destroy(&m_server->proxy_input_sock);
    rtls_gateway_destroy(&m_gateway);
}

WIN_CLIENT_t* idle_gateway::add_bridge(bytes_view identity)
{
    const zframe_ptr id{zframe_new(identity.data(), identity.size())};
    WIN_CLIENT_t* client = win_client_new(id.get());
    zhashx_insert(m_server->clients, to_hex(identity).c_str(), client);
    return client;
}

void idle_gateway::drop_unsent(WIN_CLIENT_t& bridge)
{
    while (zlist_size(bridge.unsent_messages) > 0)
        zframe_ptr{static_cast<zframe_t*>(zlist_pop(bridge.unsent_messages))}.reset();
    bridge.unsent_bytes = 0;
}

void idle_gateway::delete_nodes()
{
    const nodes_guard guard{m_nodes};
    while (const NODE_t* node = nodes_container_get_first(m_nodes)) {
        uint8_t mac[mac_size]; // the node's own goes with it
        memcpy(mac, node->mac_addr, sizeof mac);
        nodes_container_delete(m_nodes, mac);
    }
}

} // namespace rtls
