// tcp_state - what the system is about to do with a TCP connection's bytes.
//
// Threads    Any.
// Failures   A connection that is not there is -1. The others ask for one that is.
#pragma once

#include <cstdint>

namespace rtls {

// Whether the system can still move what is sent on this connection: it takes more from the program, some
// bytes are on their way that the other end has not acknowledged yet, or the other end's window is still
// open (a rest of it that is smaller than a segment is filled some time later). Once it cannot, nothing
// moves until the other end reads.
bool tcp_is_moving(int fd);

// Keeps the send buffer small. Otherwise the system lets it grow, even some time after it was full.
void tcp_fix_send_buffer(int fd);

// This process's own descriptor of the connection whose other end has this port; -1 when there is none.
int tcp_descriptor_towards(uint16_t peer_port);

} // namespace rtls
