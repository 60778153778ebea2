// node_delivery - how a node is reached, and the handing over of what is sent to it.
//
// Threads    WIN server thread. find_route takes the registry's lock for a look-up and a copy; nothing is
//            framed, printed or sent under it. Nothing waits.
// Failures   What a bridge does not take waits in its unsent messages, and what is for a bridge that is gone
//            is dropped. Memory that is short is logged, and so is a missing registry, which knows no node.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"
#include "wire/node_request.h"

#include <optional>

namespace rtls {

// How the node with this MAC (8 bytes) is reached, or nothing when there is none.
std::optional<node_route> find_route(WIN_SERVER_t* server, bytes_view mac);

// What a look-up of the node has found already. It stands for another one unless the first has moved the table's
// nodes: a second may then move them again, and their order is what two look-ups have made of it.
struct looked_up_node {
    bool stands = false;
    std::optional<node_route> route;
};

// The same by what has been found; it is looked up where that does not stand. Null when there is no such node.
const node_route* find_route(WIN_SERVER_t* server, bytes_view mac, looked_up_node& found);

// Sends a frame to the route's client. A node without one, heard of only by way of other clients, is sent
// it through the connection `asking` that has asked for the frame, if there is one: the request came that
// way, so the answer reaches it, and no bridge makes us write to the others. What nobody has asked for goes
// through every bridge: one of them reaches the node. The result is the best that any of them got then.
command_outcome send_to_node(WIN_SERVER_t* server, const node_route& route, bytes_view frame,
                             WIN_CLIENT_t* asking = nullptr);

} // namespace rtls
