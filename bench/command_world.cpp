#include "command_world.h"

#include "base/hex.h"
#include "downlink/proxy_reader.h"
#include "registry/nodes_container.h"
#include "support/hex_bytes.h"

namespace rtls {

std::vector<command_case> command_cases()
{
    return {
        {"acknowledgement", digits("0810 C7"), false},
        {"configuration", digits("0804 0A 0B 01 EE 0102030405060708090A0B0C"), false},
        {"data for the network", digits("0800 07 0003 0102030405060708 AABBCC"), false},
        {"generic request, 16 bytes", digits("080E 07 0010") + to_hex(ramp(16)), false},
        {"generic request, 16 bytes, wrapped", digits("080E 07 0010") + to_hex(ramp(16)), true},
        {"generic request, 400 bytes", digits("080E 07 0190") + to_hex(ramp(400)), false},
        {"sensor request, 4 bytes", digits("0815 07 0004 01020304"), false},
    };
}

static bytes_t mac_of(size_t node)
{
    bytes_t mac = hex("E4 A2 A3 A4 00 00 00 00");
    store_be32(mac, 4, static_cast<uint32_t>(node));
    return mac;
}

command_world::command_world(size_t bridges) : bridged_gateway(bridges)
{
    const std::string endpoint = unused_endpoint();
    m_proxy = zsock_new(ZMQ_XPUB); // whose reader sees the subscription
    zsock_bind(m_proxy, "%s", endpoint.c_str());
    server().proxy_sock.reset(zsock_new_sub(endpoint.c_str(), ""));
    const zframe_ptr subscription{zframe_recv(m_proxy)};
    read(server().proxy_sock, handle_pub_sub_proxy);
    introduce();
}

command_world::~command_world()
{
    server().actor_loop.reset(); // before its sockets
    server().proxy_sock.reset();
    zsock_destroy(&m_proxy);
}

void command_world::introduce()
{
    const nodes_guard guard{*nodes()};
    bytes_t ip = hex("FE 80 00 00 00 00 00 00 00 A2 A3 A4 00 00 00 00");
    for (size_t i = 0; i < batch; ++i) {
        store_be32(ip, 12, static_cast<uint32_t>(i));
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), mac_of(i).data(), nullptr, 0);
        nodes_container_set_address(nodes(), node, ip.data(), false);
        node_update_win_client_ID(node, record(i % bridges()).id);
    }
}

// Without a memory of earlier commands.
void command_world::make_nodes_ready(bool is_forwarded)
{
    const nodes_guard guard{*nodes()};
    for (size_t i = 0; i < batch; ++i) {
        NODE_t* node = nodes_container_find_by_mac(nodes(), mac_of(i).data());
        node->last_data_time = {};
        nodes_container_set_address(nodes(), node, node->ip_addr, is_forwarded);
    }
}

void command_world::publish(const command_case& command)
{
    make_nodes_ready(command.is_forwarded);
    for (size_t i = 0; i < batch; ++i)
        zstr_send(m_proxy, (command.digits + to_hex(mac_of(i))).c_str());
}

bool command_world::carry_out()
{
    const counter& sent = server().counts.bridge_messages_sent;
    return run_until(sent, sent.value() + batch);
}

} // namespace rtls
