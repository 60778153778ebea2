// win_server_discovery - what the discovery channel answers, apart from its socket.
//
// A bridge that does not know its gateway yet asks by UDP, mostly by broadcast.
#pragma once

#include "base/bytes.h"

#include <czmq.h>
#include <netinet/in.h>

#include <array>

namespace rtls {

// Discovery requests and answers; numbers are big-endian.
namespace discovery {
constexpr size_t receive_limit = 32; // longer datagrams are cut by the receive
constexpr size_t echo_request_size = 6;
constexpr size_t address_request_size = 9; // a command byte and 8 bytes of the requester's choice
constexpr uint8_t DSC_CMD_REQUEST_ADDRESS = 1;
constexpr size_t echo_answer_size = 6;     // address, port
constexpr size_t address_answer_size = 15; // the request, address, port
} // namespace discovery

// The requester's own address as the gateway sees it, and the WIN port (host order).
std::array<uint8_t, discovery::echo_answer_size> discovery_echo_answer(in_addr requester, in_port_t win_port);

// The request's 9 bytes, the address on which it arrived, and the WIN port (host order).
std::array<uint8_t, discovery::address_answer_size>
discovery_address_answer(bytes_view request, in_addr gateway, in_port_t win_port);

// zloop poller of the discovery port: answers one datagram. Always 0.
int handle_udp_in(zloop_t* loop, zmq_pollitem_t* item, void* p_server) noexcept;

} // namespace rtls
