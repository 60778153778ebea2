// connection_cut - cuts connections that a stream socket cannot close itself: their queue is full.
//
// A descriptor's number alone proves nothing. The library closes the descriptor of a connection that has
// ended while its events still wait for us, and the system gives the number to whoever connects next, on
// this port or another. But the library queues the notice of the end before it closes the descriptor. So
// when nothing waits in the socket, the connections whose end we have not seen had their descriptors until
// now; and a duplicate that was made before that look is the connection itself, whatever becomes of the
// number meanwhile. Only such a duplicate is shut down.
//
// A connection that ends when the queue of its events is just full leaves no notice. So the peer's address,
// by which the duplicate is compared, must not have been asked for so late that it was another's: whoever is
// asked to cut soon after the first event has to know that (terminal_server.cpp does). A bridge is closed
// seconds after its first event, when the library has long let go of one that ended so.
//
// Ownership  Descriptors stay the library's; duplicates live for the time of one cut.
// Threads    That of the stream socket.
// Blocking   Nothing waits.
// Failures   What is not proven is not cut. Without memory or descriptors nothing is cut. Nothing is logged.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

namespace rtls {

class connection_cuts {
public:
    // From now on the connection with this identity (its text), whose first event named `fd` and `peer`, is
    // to be cut. An unknown peer (port 0) never is.
    void want(const char* identity, int fd, const sockaddr_in& peer) noexcept;

    // The connection's end has been handled: its number says nothing any more. Call it for each end.
    void forget(const char* identity) noexcept;

    // Cuts those wanted, unless events wait in `socket` (libzmq's handle of the stream socket bound to
    // `own_port`, host order): then call again when they have been handled.
    void carry_out(void* socket, in_port_t own_port) noexcept;

    bool empty() const noexcept { return m_wanted.empty(); }

private:
    struct wanted_cut {
        std::string identity;
        int fd;
        sockaddr_in peer;
    };
    // Whether nothing is left to be done: it is cut, or it has gone by itself.
    static bool is_settled(const wanted_cut& wanted, void* socket, in_port_t own_port) noexcept;

    std::vector<wanted_cut> m_wanted; // few: an event that waits is handled soon
};

} // namespace rtls
