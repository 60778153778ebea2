#include "link/upstream_queue.h"

#include <czmq.h>

#include <cerrno>
#include <new>

namespace rtls {

// For a message's first part. A sender looks only every millisecond or so whether its queue has been
// emptied; in a burst it would refuse messages that there is room for. Asking for its events makes it look.
// Leaves errno as a full queue does when there is no room.
static bool send_first(message_part& part, void* socket, bool more)
{
    if (part.send(socket, more))
        return true;
    if (errno != EAGAIN)
        return false;
    int events = 0;
    size_t size = sizeof events;
    const bool has_room =
        zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == 0 && (events & ZMQ_POLLOUT) != 0;
    errno = EAGAIN;
    return has_room && part.send(socket, more);
}

static bool send_whole(message_part& first, message_part* second, void* socket)
{
    return send_first(first, socket, second != nullptr) && (!second || second->send(socket));
}

void upstream_queue::accepted()
{
    m_unsent.handed_over();
    m_watch.accepted();
}

void upstream_queue::send(void* socket, message_part& first, message_part* second, bool may_wait)
{
    if (is_waiting() && keep(first, second)) // in order
        return;
    if (!is_waiting() && send_whole(first, second, socket))
        return accepted();
    if (is_waiting())
        errno = EAGAIN;
    else if (errno == EAGAIN && may_wait && !m_watch.is_overflowing() && m_allowance.has_any(zclock_mono()) &&
             keep(first, second))
        return;
    m_watch.refused(m_function, m_call);
}

// False, with errno as a full queue leaves it, when there is no room here either.
bool upstream_queue::keep(message_part& first, message_part* second)
try {
    errno = EAGAIN;
    if (m_waiting.size() >= most_waiting)
        return false;
    if (m_waiting.empty())
        m_waited_ms = 0;
    message& kept = m_waiting.emplace_back();
    kept.first.take(first);
    kept.has_second = second != nullptr;
    if (second)
        kept.second.take(*second);
    return true;
} catch (const std::bad_alloc&) {
    errno = EAGAIN;
    return false;
}

void upstream_queue::drain(void* socket)
{
    while (is_waiting()) {
        message& next = m_waiting.front();
        if (send_whole(next.first, next.has_second ? &next.second : nullptr, socket))
            accepted();
        else if (errno == EAGAIN)
            return;
        else
            m_watch.refused(m_function, m_call);
        m_waiting.pop_front();
    }
}

void upstream_queue::retry(void* socket)
{
    if (!is_waiting())
        return;
    drain(socket);
    m_allowance.spend_ms(1);
    if (++m_waited_ms >= patience_ms || !m_allowance.has_any(zclock_mono()))
        give_up();
}

void upstream_queue::give_up()
{
    for (; is_waiting(); m_waiting.pop_front()) {
        errno = EAGAIN;
        m_watch.refused(m_function, m_call);
    }
}

void upstream_queue::stopping(void* socket)
{
    if (socket)
        drain(socket);
    give_up();
    m_watch.stopping();
}

} // namespace rtls
