// discovery - how a bridge that does not know the gateway finds it: UDP, to a host or a whole network.
//
// Threads    Any.
// Blocking   Until the answer or the time-out; a host name for as long as the system looks it up.
// Failures   No such host, no socket and no answer are all nothing.
#pragma once

#include "rtls-sim/wire.h"

#include <netinet/in.h>

#include <chrono>
#include <optional>
#include <string>

namespace sim {

// "a.b.c.d" or a host name, as an IPv4 address.
std::optional<sockaddr_in> resolve(const std::string& host, uint16_t port);
std::string endpoint_text(const sockaddr_in& address);

// Asks `where` (broadcast is fine) for the gateway's address, as the device `mac`.
std::optional<sockaddr_in> discover_gateway(const sockaddr_in& where, const mac_bytes& mac,
                                            std::chrono::milliseconds timeout);
// Asks how the gateway sees us: our own address, and its WIN port in place of ours.
std::optional<sockaddr_in> discover_self(const sockaddr_in& where, std::chrono::milliseconds timeout);

} // namespace sim
