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

bool download_pool::order(std::function<void()> work, const std::string& lane)
try {
    const mutex_guard lock(m_mutex);
    if (m_waiting.size() >= most_waiting) {
        logger_error(g_logger, "download_pool: %zu downloads wait already", most_waiting);
        return false;
    }
    if (m_waiting.size() >= m_idle && m_threads.size() < most_threads && !add_thread() && m_threads.empty())
        return false;
    m_waiting.push_back({std::move(work), lane});
    m_changed.notify_one();
    return true;
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, "download_pool");
    return false;
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

// The first order whose lane is free.
bool download_pool::take(job& next)
{
    auto found = m_waiting.begin();
    while (found != m_waiting.end() && m_busy_lanes.contains(found->lane))
        ++found;
    if (found == m_waiting.end())
        return false;
    next = std::move(*found);
    m_waiting.erase(found);
    return true;
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
            if (!now.lane.empty())
                m_busy_lanes.insert(now.lane);
        }
        now.work();
        now.work = nullptr; // frees what it owns before others hear of its end
        const mutex_guard lock(m_mutex);
        m_busy_lanes.erase(now.lane);
    }
}

} // namespace rtls
