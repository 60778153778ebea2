// zmq_handles - owners of ZeroMQ's handles, and messages as lists of frames.
//
// Ownership  A context ends when its sockets are closed: declare it before them. Sockets do not linger.
// Threads    A socket is its thread's.
// Blocking   Nothing here waits, but for the end of a context whose sockets are open.
// Failures   A socket that cannot be made, because there is no context, no memory or no descriptor: std::bad_alloc, as
//            for frames without memory. A socket that is broken off reads as one without a message.
#pragma once

#include <zmq.h>

#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace tap {

struct end_context {
    void operator()(void* context) const { zmq_ctx_term(context); }
};
struct close_socket {
    void operator()(void* socket) const
    {
        const int no_linger = 0;
        zmq_setsockopt(socket, ZMQ_LINGER, &no_linger, sizeof no_linger);
        zmq_close(socket);
    }
};
using context_ptr = std::unique_ptr<void, end_context>;
using socket_ptr = std::unique_ptr<void, close_socket>;

inline socket_ptr new_socket(const context_ptr& context, int type)
{
    socket_ptr socket{zmq_socket(context.get(), type)};
    if (!socket)
        throw std::bad_alloc();
    return socket;
}

// The next frame that is there; false: none.
inline bool receive_frame(void* socket, std::vector<uint8_t>& frame, bool& has_more)
{
    zmq_msg_t part;
    zmq_msg_init(&part);
    const bool is_there = zmq_msg_recv(&part, socket, ZMQ_DONTWAIT) >= 0;
    if (is_there) {
        const auto* data = static_cast<const uint8_t*>(zmq_msg_data(&part));
        frame.assign(data, data + zmq_msg_size(&part));
        has_more = zmq_msg_more(&part) != 0;
    }
    zmq_msg_close(&part);
    return is_there;
}

// All frames of a message, which arrive together. Empty: there is none.
inline std::vector<std::vector<uint8_t>> receive_frames(void* socket)
{
    std::vector<std::vector<uint8_t>> frames;
    bool has_more = true;
    for (std::vector<uint8_t> frame; has_more && receive_frame(socket, frame, has_more);)
        frames.push_back(std::move(frame));
    return frames;
}

} // namespace tap
