#include "downlink/node_delivery.h"

#include "base/czmq_ptr.h"
#include "link/sending.h"
#include "registry/nodes_container.h"

namespace rtls {

std::optional<node_route> find_route(WIN_SERVER_t* server, bytes_view mac)
{
    NODES_CONTAINER_t& nodes = *server->nodes();
    const nodes_guard guard{nodes};
    const NODE_t* node = nodes.find_by_mac(mac.data());
    return node ? std::optional{route_of(*node)} : std::nullopt;
}

void send_to_node(WIN_SERVER_t* server, const node_route& route, bytes_view frame, WIN_CLIENT_t* asking)
{
    if (!route.client) {
        data_to_win_client(server, asking ? asking->id.get() : nullptr, frame.data(), frame.size());
        return;
    }
    // Without its identity the frame must not go: null would mean every bridge.
    const zframe_ptr id{zframe_new(route.client->bytes.data(), route.client->size)};
    if (!id) {
        log_call_error(__func__, "zframe_new");
        return;
    }
    data_to_win_client(server, id.get(), frame.data(), frame.size());
}

} // namespace rtls
