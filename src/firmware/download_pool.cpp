#include "firmware/download_pool.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/signals.h"

#include <pthread.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <system_error>
#include <utility>

namespace rtls {

download_pool::~download_pool()
{
    job_list dropped;
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
    now.running = m_running.size();
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
    return waiting.lane.empty() || std::none_of(m_running.begin(), m_running.end(), [&](const job& running) {
               return running.lane == waiting.lane;
           });
}

// The first order that may begin becomes the last of those that run. Throws nothing: an order that was taken
// is carried out.
bool download_pool::begin_next()
{
    auto found = m_waiting.begin();
    while (found != m_waiting.end() && !may_begin(*found))
        ++found;
    if (found == m_waiting.end())
        return false;
    m_running.splice(m_running.end(), m_waiting, found);
    if (found->ordered_by == customer::operators) {
        --m_waiting_of_operators;
        ++m_running_of_operators;
    }
    return true;
}

void download_pool::carry_out(job_list::iterator now)
{
    try {
        now->work();
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, "download_pool");
        note_not_taken();
    }
    now->work = nullptr; // frees what it owns before others hear of its end
    const mutex_guard lock(m_mutex);
    if (now->ordered_by == customer::operators)
        --m_running_of_operators;
    m_running.erase(now);
}

// A thread that ends an order looks for the next by itself, so that those behind it in its lane are found.
void download_pool::run()
{
    block_all_signals();
    pthread_setname_np(pthread_self(), "rtls-download");
    for (;;) {
        job_list::iterator now;
        {
            const mutex_guard lock(m_mutex);
            ++m_idle;
            while (!m_is_ending && !begin_next())
                m_changed.wait(m_mutex);
            --m_idle;
            if (m_is_ending)
                return;
            now = std::prev(m_running.end());
        }
        carry_out(now);
    }
}

} // namespace rtls
