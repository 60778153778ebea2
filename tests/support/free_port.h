// free_port - ports for the servers that tests start.
#pragma once

#include <cstdint>

namespace rtls {

// A port that this process alone may use until it ends, and that neither a TCP nor a UDP socket holds
// now. Test programs run side by side: each takes whole blocks of ports for itself, so that nobody gets
// a port between our looking and its use. Never the same one twice. All lie below the range from which
// the system takes the ports of outgoing connections.
// Threads    Any.
uint16_t free_port();

} // namespace rtls
