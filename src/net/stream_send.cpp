#include "net/stream_send.h"

#include <cassert>

namespace rtls {

bool stream_send_identity(zsock_t* sock, bytes_view identity, when_full choice) noexcept
{
    return send_copy(zsock_resolve(sock), identity, true, choice == when_full::wait);
}

bool stream_send_bytes(zsock_t* sock, message_part& bytes) noexcept
{
    // "More" means nothing here, and would make bytes without an addressee fail.
    return bytes.send(zsock_resolve(sock), true);
}

bool stream_send(zsock_t* sock, bytes_view identity, message_part& bytes) noexcept
{
    void* const socket = zsock_resolve(sock);
    return send_copy(socket, identity, true) && bytes.send(socket, true);
}

bool stream_send_small(zsock_t* sock, bytes_view identity, bytes_view bytes) noexcept
{
    assert(bytes.size() <= inline_part_size);
    void* const socket = zsock_resolve(sock);
    return send_copy(socket, identity, true) && send_copy(socket, bytes, true);
}

bool has_events(void* socket) noexcept
{
    int events = 0;
    size_t size = sizeof events;
    return zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) != 0 || (events & ZMQ_POLLIN) != 0;
}

} // namespace rtls
