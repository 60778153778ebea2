#include "firmware/download_pool.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/signals.h"

#include <pthread.h>

#include <new>
#include <system_error>
#include <utility>

namespace rtls {

download_pool::~download_pool()
{
    std::deque<job> dropped;
    {
        const mutex_guard lock(m_mutex);
        m_is_ending = true;
        dropped.swap(m_waiting);
    }
    dropped.clear();
    m_changed.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

bool download_pool::has_room(customer ordered_by) const
{
    return m_waiting.size() < most_waiting &&
           (ordered_by == customer::servers || m_waiting_of_operators < most_waiting_of_operators);
}

bool download_pool::order(std::function<void()> work, const std::string& lane, customer ordered_by)
try {
    const mutex_guard lock(m_mutex);
    if (!has_room(ordered_by)) {
        ++m_load.refused;
        logger_error(g_logger, "download_pool: %zu downloads wait already", m_waiting.size());
        return false;
    }
    if (m_waiting.size() >= m_idle && m_threads.size() < most_threads && !add_thread() && m_threads.empty()) {
        ++m_load.not_taken;
        return false;
    }
    m_waiting.push_back({std::move(work), lane, ordered_by});
    if (ordered_by == customer::operators)
        ++m_waiting_of_operators;
    m_changed.notify_all(); // a thread that may not begin it is not the one to be woken alone
    return true;
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, "download_pool");
    note_not_taken();
    return false;
}

void download_pool::note_not_taken() noexcept
{
    const mutex_guard lock(m_mutex);
    ++m_load.not_taken;
}

download_pool::load download_pool::current_load()
{
    const mutex_guard lock(m_mutex);
    load now = m_load;
    now.waiting = m_waiting.size();
    return now;
}

bool download_pool::add_thread()
try {
    m_threads.reserve(most_threads);
    m_threads.emplace_back([this] { run(); });
    return true;
} catch (const std::system_error& failure) {
    logger_error(g_logger, "download_pool: %s", failure.what());
    return false;
}

bool download_pool::may_begin(const job& waiting) const
{
    if (waiting.ordered_by == customer::operators && m_running_of_operators >= most_threads_for_operators)
        return false;
    return !m_busy_lanes.contains(waiting.lane);
}

// The first order that may begin.
bool download_pool::take(job& next)
{
    auto found = m_waiting.begin();
    while (found != m_waiting.end() && !may_begin(*found))
        ++found;
    if (found == m_waiting.end())
        return false;
    if (!found->lane.empty())
        m_busy_lanes.insert(found->lane); // the only step that may throw comes first
    next = std::move(*found);
    m_waiting.erase(found);
    ++m_load.running;
    if (next.ordered_by == customer::operators) {
        --m_waiting_of_operators;
        ++m_running_of_operators;
    }
    return true;
}

void download_pool::carry_out(job& now)
{
    try {
        now.work();
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, "download_pool");
        note_not_taken();
    }
    now.work = nullptr; // frees what it owns before others hear of its end
    const mutex_guard lock(m_mutex);
    --m_load.running;
    m_busy_lanes.erase(now.lane);
    if (now.ordered_by == customer::operators)
        --m_running_of_operators;
}

// A thread that ends an order looks for the next by itself, so that those behind it in its lane are found.
void download_pool::run()
{
    block_all_signals();
    pthread_setname_np(pthread_self(), "rtls-download");
    for (;;) {
        job now;
        {
            const mutex_guard lock(m_mutex);
            ++m_idle;
            while (!m_is_ending && !take(now))
                m_changed.wait(m_mutex);
            --m_idle;
            if (m_is_ending)
                return;
        }
        carry_out(now);
    }
}

} // namespace rtls
