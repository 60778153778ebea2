#include "http/answer_pool.h"

#include "base/signals.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <new>
#include <utility>

namespace rtls {

void answer_pool::start(int wake_up)
{
    m_wake_up = wake_up;
    for (size_t i = 0; i < threads_number; ++i)
        m_threads.emplace_back([this] { run(); });
}

void answer_pool::stop()
{
    {
        const mutex_guard lock(m_mutex);
        m_is_stopping = true;
        m_work.notify_all();
    }
    for (std::thread& thread : m_threads)
        thread.join();
    m_threads.clear();
}

bool answer_pool::order(request what)
{
    const mutex_guard lock(m_mutex);
    if (m_waiting.size() >= most_waiting)
        return false;
    m_waiting.push_back(std::move(what));
    m_work.notify_one();
    return true;
}

std::vector<answer_pool::made> answer_pool::take_made()
{
    std::vector<made> all;
    const mutex_guard lock(m_mutex);
    all.swap(m_made);
    m_made.reserve(threads_number);
    return all;
}

// False when the pool stops.
bool answer_pool::wait_for(request& what)
{
    const mutex_guard lock(m_mutex);
    while (m_waiting.empty() && !m_is_stopping)
        m_work.wait(m_mutex);
    if (m_is_stopping)
        return false;
    what = std::move(m_waiting.front());
    m_waiting.pop_front();
    return true;
}

http_answer answer_pool::answer_to(const request& what) noexcept
try {
    return m_pages.answer(what.head);
} catch (const std::bad_alloc&) {
    return {};
}

void answer_pool::hand_in(uint64_t connection, http_answer answer) noexcept
{
    try {
        const mutex_guard lock(m_mutex);
        m_made.push_back({connection, std::move(answer)});
    } catch (const std::bad_alloc&) { // the connection's place is lost until somebody needs it
        return;
    }
    (void)eventfd_write(m_wake_up, 1);
}

void answer_pool::run() noexcept
{
    block_all_signals();
    pthread_setname_np(pthread_self(), "rtls-http");
    request what;
    while (wait_for(what))
        hand_in(what.connection, answer_to(what));
}

} // namespace rtls
