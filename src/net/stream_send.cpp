#include "net/stream_send.h"

namespace rtls {

bool stream_send_identity(zsock_t* sock, bytes_view identity, when_full choice) noexcept
{
    message_part id{identity};
    return id.is_made() && id.send(zsock_resolve(sock), true, choice == when_full::wait);
}

bool stream_send_bytes(zsock_t* sock, message_part& bytes) noexcept
{
    // "More" means nothing here, and would make bytes without an addressee fail.
    return bytes.send(zsock_resolve(sock), true);
}

bool stream_send(zsock_t* sock, bytes_view identity, message_part& bytes) noexcept
{
    return stream_send_identity(sock, identity, when_full::give_up) && stream_send_bytes(sock, bytes);
}

bool has_events(void* socket) noexcept
{
    int events = 0;
    size_t size = sizeof events;
    return zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) != 0 || (events & ZMQ_POLLIN) != 0;
}

} // namespace rtls
