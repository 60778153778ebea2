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

upstream_queue::handed upstream_queue::send_whole(message_part& first, message_part* second, void* socket)
{
    if (!send_first(first, socket, second != nullptr)) {
        if (errno == EAGAIN)
            m_unsent.refused();
        return handed::nothing;
    }
    return !second || second->send(socket) ? handed::whole : handed::a_part;
}

void upstream_queue::accepted()
{
    m_unsent.handed_over();
    m_watch.accepted();
}

int64_t upstream_queue::now_ms()
{
    return m_now_ms = zclock_mono();
}

// With errno as the library left it.
void upstream_queue::lose(upstream_loss cause)
{
    m_counts.lost[errno == EAGAIN ? cause : upstream_loss::error].add();
    m_watch.refused(m_function, m_call);
}

// The server went away between the two parts. The library has dropped the first with the connection, and takes
// what comes next for a message's first part again; the second alone would be read as a message of its own.
void upstream_queue::lose_torn()
{
    m_counts.lost[upstream_loss::error].add();
    m_watch.refused(m_function, m_call);
}

void upstream_queue::handed_whole()
{
    m_counts.at_once.add();
    accepted();
}

// What is refused is offered again, with the usual looks at the queue.
void upstream_queue::send(void* socket, bytes_view first, message_part& second, bool may_wait)
{
    if (!is_waiting() && !m_watch.is_overflowing() && send_copy(socket, first, true))
        return second.send(socket) ? handed_whole() : lose_torn();
    message_part made{first};
    send(socket, made, &second, may_wait);
}

void upstream_queue::send(void* socket, message_part& first, message_part* second, bool may_wait)
{
    if (is_waiting() && keep(first, second)) // in order
        return;
    if (is_waiting()) {
        errno = EAGAIN;
        return lose(upstream_loss::overflow);
    }
    const handed done = send_whole(first, second, socket);
    if (done == handed::whole)
        return handed_whole();
    if (done == handed::a_part)
        return lose_torn();
    if (errno == EAGAIN && may_wait && !m_watch.is_overflowing() && m_allowance.has_any(now_ms()) &&
        keep(first, second))
        return;
    lose(upstream_loss::overflow);
}

// False, with errno as a full queue leaves it, when there is no room here either.
bool upstream_queue::keep(message_part& first, message_part* second)
try {
    errno = EAGAIN;
    if (m_waiting.size() >= most_waiting)
        return false;
    if (m_waiting.empty()) {
        m_waited_ms = 0;
        m_waiting_since = m_now_ms;
    }
    message& kept = m_waiting.emplace_back();
    kept.first.take(first);
    kept.has_second = second != nullptr;
    if (second)
        kept.second.take(*second);
    m_counts.waiting.set(m_waiting.size());
    return true;
} catch (const std::bad_alloc&) {
    errno = EAGAIN;
    return false;
}

// The number of messages that have been handed over.
uint64_t upstream_queue::drain(void* socket)
{
    uint64_t handed_over = 0;
    while (is_waiting()) {
        message& next = m_waiting.front();
        const handed done = send_whole(next.first, next.has_second ? &next.second : nullptr, socket);
        if (done == handed::whole) {
            accepted();
            ++handed_over;
        } else if (done == handed::a_part)
            lose_torn();
        else if (errno == EAGAIN)
            break;
        else
            lose(upstream_loss::error);
        m_waiting.pop_front();
    }
    return handed_over;
}

void upstream_queue::note_late(uint64_t number)
{
    if (number > 0)
        m_counts.after_wait.add((m_now_ms - m_waiting_since) * 1000, number);
}

void upstream_queue::retry(void* socket)
{
    if (!is_waiting())
        return;
    const uint64_t handed_over = drain(socket);
    m_allowance.spend_ms(1);
    const bool may_go_on = m_allowance.has_any(now_ms());
    note_late(handed_over);
    m_counts.waiting.set(m_waiting.size());
    if (++m_waited_ms >= patience_ms || !may_go_on)
        give_up();
}

void upstream_queue::give_up()
{
    for (; is_waiting(); m_waiting.pop_front()) {
        errno = EAGAIN;
        lose(upstream_loss::waited_in_vain);
    }
    m_counts.waiting.set(0);
}

void upstream_queue::stopping(void* socket)
{
    if (const uint64_t handed_over = socket ? drain(socket) : 0) {
        (void)now_ms();
        note_late(handed_over);
    }
    give_up();
    m_watch.stopping();
}

} // namespace rtls
