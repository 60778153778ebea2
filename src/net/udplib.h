// udplib - a thin layer over UDP sockets, for the discovery channel.
//
// Ownership  The caller's is the descriptor, until udp_destroy.
// Threads    A descriptor belongs to the thread that opened it.
// Blocking   Receiving waits for a datagram, unless the caller knows that one is there; sending for room: what
//            goes to neighbours that nobody has takes room for seconds. Neither after udp_never_wait.
// Failures   Logged with the call's name and errno, but for EAGAIN: that is for the caller, who never waits. A
//            descriptor of -1 is refused silently.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

namespace rtls {

// Opens an IPv4 datagram socket on all interfaces and `port_nbr` (host order), with broadcasts,
// address reuse and packet information (IP_PKTINFO) on. After a false result `handle` may name a
// descriptor that is already closed: it must not be used.
bool udp_new_connection(in_port_t port_nbr, int* handle);
// The same on one address of this host alone. Datagrams to a broadcast address do not reach it then.
bool udp_new_connection_at(in_addr own_address, in_port_t port_nbr, int* handle);
void udp_destroy(int handle);

// From now on nothing waits: what would have to fails with EAGAIN in errno.
bool udp_never_wait(int handle);

bool udp_sendto(int handle, const void* buffer, size_t length, const sockaddr_in* sockaddr, socklen_t si_len);

// The number of bytes received, 0 on failure or for an empty datagram.
ssize_t udp_recv(int handle, void* buffer, size_t length, sockaddr_in* sockaddr, socklen_t si_len);
ssize_t udp_recvmsg(int handle, msghdr* msg);

} // namespace rtls
