// discovery_answers - what a bridge that looks for its gateway is told.
//
// Pure functions: no socket, no lock, no memory of their own.
// Threads    Any. Nothing waits.
// Failures   None: what is no request has no answer.
// Bytes      Big-endian: layouts discovery_echo and discovery_address in messaging.h. Addresses are given
//            in network order, as sockets have them, and ports in host order.
#pragma once

#include "base/bytes.h"
#include "wire/messaging.h"

#include <netinet/in.h>

#include <array>

namespace rtls {

// The requester's own address as the gateway sees it, and the WIN port.
std::array<uint8_t, discovery_echo::size> discovery_echo_answer(in_addr requester, in_port_t win_port);

// The request's 9 bytes (there may be more), the address on which it arrived, and the WIN port.
std::array<uint8_t, discovery_address::size> discovery_address_answer(bytes_view request, in_addr gateway,
                                                                      in_port_t win_port);

} // namespace rtls
