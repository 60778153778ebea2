#include "support/node_command_fixture.h"

#include "base/hex.h"
#include "registry/nodes_container.h"
#include "support/hex_bytes.h"
#include "wire/slip.h"

namespace rtls {

node_command_fixture::node_command_fixture()
{
    server->win_sock.reset(zsock_new(ZMQ_STREAM));
    (void)m_log.take();
}

node_command_fixture::~node_command_fixture()
{
    server->win_sock.reset();
}

WIN_CLIENT_t* node_command_fixture::add_bridge(const std::string& id)
{
    return m_gateway.add_bridge(hex(id));
}

void node_command_fixture::disconnect(const std::string& id)
{
    server->clients.erase(id.c_str());
}

void node_command_fixture::add_node(const std::string& mac, const node_options& options)
{
    const nodes_guard guard{*nodes};
    NODE_t* node = nodes_container_find_or_create_by_mac(nodes, hex(mac).data(), nullptr, 0);
    nodes_container_set_address(nodes, node, hex(node_ip).data(), options.forwarded_ip);
    node->direct_mask = options.direct_mask;
    if (options.bridge)
        node_update_win_client_ID(node, options.bridge->id);
}

void node_command_fixture::remove_node(const std::string& mac)
{
    const nodes_guard guard{*nodes};
    nodes_container_delete(nodes, hex(mac).data());
}

static std::string without_framing(bytes_view frame)
{
    EXPECT_GE(frame.size(), 2u);
    EXPECT_EQ(frame.front(), slip_start);
    EXPECT_EQ(frame.back(), slip_end);
    bytes_t message;
    for (size_t i = 1; i + 1 < frame.size(); ++i) {
        if (frame[i] == slip_esc)
            ++i;
        message.push_back(frame[i]);
    }
    return to_hex(message);
}

texts_t node_command_fixture::sent_to(WIN_CLIENT_t* bridge)
{
    std::vector<std::string> messages;
    for (unsent_queue& unsent = bridge->unsent_messages; !unsent.empty(); unsent.pop())
        messages.push_back(without_framing(unsent.front()));
    return messages;
}

texts_t node_command_fixture::errors()
{
    std::vector<std::string> texts = m_log.messages("main");
    std::erase_if(texts, [](const std::string& text) { return text.find("zframe_send: 113,") != text.npos; });
    return texts;
}

} // namespace rtls
