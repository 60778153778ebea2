// tap_context - the tap's own context of the library, and owners of its sockets.
//
// The library serves all sockets of a context by the context's threads. The tap has one of its own, so that whoever
// keeps it busy (a name to be resolved, a subscriber that sends without end) holds up no bridge; and there is none
// without a tap.
// Ownership  A context outlives its sockets: declare it first.
// Threads    A socket belongs to one thread; the context's own block all signals.
// Blocking   The end of a context waits for what its closed sockets still send, as long as they linger.
// Failures   Null, with errno. Nothing throws.
#pragma once

#include <zmq.h>

#include <cerrno>
#include <memory>

namespace rtls {

struct ended_context {
    void operator()(void* context) const noexcept
    {
        while (zmq_ctx_term(context) != 0 && errno == EINTR) {
        }
    }
};
using zmq_context_ptr = std::unique_ptr<void, ended_context>;

struct closed_socket {
    void operator()(void* socket) const noexcept { zmq_close(socket); }
};
using zmq_socket_ptr = std::unique_ptr<void, closed_socket>;

} // namespace rtls
