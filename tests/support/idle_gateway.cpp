#include "support/idle_gateway.h"

#include "registry/nodes_container.h"

#include <cstring>

namespace rtls {

static constexpr uint8_t identity[] = {0x00, 0x11, 0x22, 0x33, 0x44};

idle_gateway::idle_gateway() : m_server(win_server()), m_bridge(add_bridge(identity))
{
    m_server.actor_loop.reset(zloop_new());
    m_server.win_sock.reset(zsock_new(ZMQ_STREAM));
    m_server.dbg_client_sock.reset(zsock_new(ZMQ_PUSH));
    m_server.msg_handler_sock.reset(zsock_new(ZMQ_PUSH));
    m_server.proxy_input_sock.reset(zsock_new(ZMQ_PUSH));
}

idle_gateway::~idle_gateway()
{
    m_server.actor_loop.reset();
    m_server.win_sock.reset();
    m_server.dbg_client_sock.reset();
    m_server.msg_handler_sock.reset();
    m_server.proxy_input_sock.reset();
}

void idle_gateway::drop_unsent(WIN_CLIENT_t& bridge)
{
    bridge.unsent_messages.clear();
}

void idle_gateway::delete_nodes()
{
    const nodes_guard guard{*nodes()};
    while (const NODE_t* node = nodes_container_get_first(nodes())) {
        uint8_t mac[mac_size]; // the node's own goes with it
        std::memcpy(mac, node->mac_addr, sizeof mac);
        nodes_container_delete(nodes(), mac);
    }
}

} // namespace rtls
