#include "downlink/node_delivery.h"

#include "base/null_check.h"
#include "base/peer.h"
#include "link/sending.h"
#include "registry/nodes_container.h"

namespace rtls {

// The copying is part of the look-up: the node may go as soon as the lock is let go.
static std::optional<node_route> find_route_locked(NODES_CONTAINER_t& nodes, bytes_view mac)
    RTLS_REQUIRES(nodes);

static std::optional<node_route> find_route_locked(NODES_CONTAINER_t& nodes, bytes_view mac)
{
    const NODE_t* node = nodes.find_by_mac(mac.data());
    return node ? std::optional{route_of(*node)} : std::nullopt;
}

std::optional<node_route> find_route(WIN_SERVER_t* server, bytes_view mac)
{
    NODES_CONTAINER_t* nodes = server->nodes();
    if (any_null(__func__, nodes))
        return std::nullopt;
    const nodes_guard guard{*nodes};
    return find_route_locked(*nodes, mac);
}

const node_route* find_route(WIN_SERVER_t* server, bytes_view mac, looked_up_node& found)
{
    if (!found.stands)
        found = {.stands = true, .route = find_route(server, mac)};
    return found.route ? &*found.route : nullptr;
}

static delivery deliver(WIN_SERVER_t& server, const node_route& route, bytes_view frame, WIN_CLIENT_t* asking)
{
    if (route.client)
        return data_to_bridge(server, route.client->view(), frame);
    return asking ? data_to_bridge(server, frame_bytes(asking->id), frame)
                  : data_to_all_bridges(server, frame);
}

command_outcome send_to_node(WIN_SERVER_t* server, const node_route& route, bytes_view frame,
                             WIN_CLIENT_t* asking)
{
    switch (deliver(*server, route, frame, asking)) {
    case delivery::sent:
        return command_outcome::sent;
    case delivery::cached:
        return command_outcome::cached;
    case delivery::lost:
        return command_outcome::lost;
    case delivery::no_bridge:
        return command_outcome::no_bridge;
    case delivery::not_made:
        break;
    }
    return command_outcome::out_of_memory;
}

} // namespace rtls
