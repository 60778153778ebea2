// free_port - ports for the servers that tests start.
#pragma once

#include <cstdint>

namespace rtls {

// A port of the loopback device that neither a TCP nor a UDP socket uses at the moment. It lies below the
// range from which the system takes the ports of outgoing connections: from there another test could
// get it between our looking and its use.
uint16_t free_port();

} // namespace rtls
