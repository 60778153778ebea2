#include "base/call_queue.h"

#include "base/common.h"
#include "base/logger.h"

#include <sys/eventfd.h>

#include <new>
#include <utility>

namespace rtls {

call_queue::call_queue() : m_wake_up(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

bool call_queue::join(zloop_t* loop)
{
    zmq_pollitem_t item{nullptr, m_wake_up.get(), ZMQ_POLLIN, 0};
    return m_wake_up && zloop_poller(loop, &item, handle_wake_up, this) == 0;
}

void call_queue::close()
{
    std::list<std::function<void()>> dropped; // freed outside the lock
    const mutex_guard lock(m_mutex);
    m_is_closed = true;
    dropped.swap(m_calls);
}

void call_queue::post(std::function<void()> call) noexcept
try {
    post(prepared_call{std::move(call)});
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, "call_queue");
}

void call_queue::post(prepared_call&& call) noexcept
{
    {
        const mutex_guard lock(m_mutex);
        if (m_is_closed)
            return;
        m_calls.splice(m_calls.end(), call.m_call);
    }
    (void)eventfd_write(m_wake_up.get(), 1);
}

void call_queue::make_calls() noexcept
{
    eventfd_t number = 0;
    (void)eventfd_read(m_wake_up.get(), &number);
    std::list<std::function<void()>> calls;
    {
        const mutex_guard lock(m_mutex);
        calls.swap(m_calls);
    }
    for (const auto& call : calls) {
        try {
            call();
        } catch (const std::bad_alloc&) {
            logger_error(g_logger, str_out_of_memory, "call_queue");
        }
    }
}

int call_queue::handle_wake_up(zloop_t* /*loop*/, zmq_pollitem_t* /*item*/, void* queue) noexcept
{
    static_cast<call_queue*>(queue)->make_calls();
    return 0;
}

void call_queue_slot::set(std::shared_ptr<call_queue> queue) noexcept
{
    const mutex_guard lock(m_mutex);
    m_queue.swap(queue);
}

bool call_queue_slot::post(std::function<void()> call) noexcept
{
    std::shared_ptr<call_queue> queue;
    {
        const mutex_guard lock(m_mutex);
        queue = m_queue;
    }
    if (queue)
        queue->post(std::move(call));
    return queue != nullptr;
}

} // namespace rtls
