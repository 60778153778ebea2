// generic_requests - requests that go down to a node as they are, and the channel by which other threads
// hand them in.
//
// Threads    WIN server thread; requests of others come by the channel. Takes the registry's lock for the
//            look-up of the node, and sends and prints outside it. Nothing waits.
// Bytes      A request is a header (5 bytes; the length in it big-endian), a payload, the destination's MAC
//            (8 bytes). What comes by the channel: winserw_sock_cmd_t in wire/messaging.h.
// Failures   A request that is refused is printed to the debug stream, and nothing is sent; nobody is told. A
//            null argument is logged.
#pragma once

#include "downlink/node_delivery.h"
#include "link/win_server_private.h"

namespace rtls {

// Sends one request (5 to 800 bytes) down the WIN client of its node. What is refused is told by a debug line.
// `asking`: the client that the request answers, which gets it
// when its node has no route of its own; without one every client does.
command_outcome forward_generic(WIN_SERVER_t& server, bytes_view request, WIN_CLIENT_t* asking = nullptr);
// The same for a node of which something has been found already.
command_outcome forward_generic(WIN_SERVER_t& server, bytes_view request, looked_up_node& node,
                                WIN_CLIENT_t* asking = nullptr);

// Whether a request with this outcome was on its way, whatever became of it then.
bool was_forwarded(command_outcome outcome) noexcept;

// The same by handle. False when it was refused; true says nothing of the delivery.
bool generic_process(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen,
                     WIN_CLIENT_t* asking = nullptr);

// zloop reader of request_channel_endpoint. -1, which ends the loop, when it is interrupted; else 0.
int handle_interthread_sever_sock(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

} // namespace rtls
