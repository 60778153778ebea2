#include "impl/system_log.h"

#include "impl/log_thread.h"

#include <syslog.h>

#include <condition_variable>
#include <cstdlib>
#include <utility>

namespace tav::libs::core {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr auto patience = milliseconds(2000);       // with a log that takes nothing
static constexpr auto cancel_patience = milliseconds(500); // for the thread to leave libc when told to

static std::atomic<unsigned> forks{0};

static void count_forks()
{
    static const int registered = pthread_atfork(nullptr, nullptr, [] { ++forks; });
    (void)registered; // without memory for it, a child would wait in vain, but not for ever
}

// The one whose lines are not yet to be given up when the program ends without destroying it.
static std::atomic<system_log*> live{nullptr};

static void close_at_exit()
{
    static const int registered = std::atexit([] {
        if (system_log* log = live.exchange(nullptr))
            log->close();
    });
    (void)registered; // there is always room for some
}

// False: not in time.
static bool wait_until_followed(log_thread_state& state, uint64_t entries, milliseconds timeout)
    RTLS_REQUIRES(state.mutex)
{
    const auto deadline = steady_clock::now() + timeout;
    while (state.followed < entries)
        if (state.progress.wait_until(state.mutex, deadline) == std::cv_status::timeout)
            return state.followed >= entries;
    return true;
}

static bool wait_until_ended(log_thread_state& state, milliseconds timeout) RTLS_REQUIRES(state.mutex)
{
    const auto deadline = steady_clock::now() + timeout;
    while (!state.has_ended)
        if (state.progress.wait_until(state.mutex, deadline) == std::cv_status::timeout)
            return state.has_ended;
    return true;
}

static bool order(log_thread_state& state, log_entry::action what, milliseconds timeout)
{
    const rtls::mutex_guard lock(state.mutex);
    state.queue.push_order(what);
    state.work.notify_one();
    return wait_until_followed(state, state.queue.pushed(), timeout);
}

// Whether the thread has followed everything and ended.
static bool close_in_time(log_thread_state& state)
{
    const rtls::mutex_guard lock(state.mutex);
    state.is_closing = true;
    state.work.notify_one();
    const bool has_ended = wait_until_ended(state, patience);
    state.is_given_up = true;
    return has_ended;
}

static bool cancel_in_time(log_thread_state& state, pthread_t thread)
{
    pthread_cancel(thread);
    const rtls::mutex_guard lock(state.mutex);
    return wait_until_ended(state, cancel_patience);
}

// The first order, before the thread can see it.
static std::shared_ptr<log_thread_state> state_to_open(std::string_view name)
{
    auto state = std::make_shared<log_thread_state>(name);
    const rtls::mutex_guard lock(state->mutex);
    state->queue.push_order(log_entry::action::debug_off);
    return state;
}

system_log::system_log(std::string_view name)
    : m_state(state_to_open(name)), m_forks(forks), m_thread(start_log_thread(m_state))
{
    count_forks();
    close_at_exit();
    live = this;
    const rtls::mutex_guard lock(m_state->mutex);
    (void)wait_until_followed(*m_state, 1, patience);
}

system_log::~system_log()
{
    close();
}

void system_log::close()
{
    if (!m_is_running || is_in_child())
        return;
    m_is_running = false;
    system_log* self = this;
    live.compare_exchange_strong(self, nullptr);
    if (close_in_time(*m_state) || cancel_in_time(*m_state, m_thread))
        pthread_join(m_thread, nullptr);
    else
        pthread_detach(m_thread); // if it ever leaves libc, it closes the log and ends
}

bool system_log::is_in_child() const
{
    return m_forks != forks.load(std::memory_order_relaxed);
}

void system_log::set_debug(bool on)
{
    using action = log_entry::action;
    if (!is_in_child())
        (void)order(*m_state, on ? action::debug_on : action::debug_off, patience);
}

bool system_log::flush(milliseconds timeout)
{
    return !is_in_child() && order(*m_state, log_entry::action::mark, timeout);
}

bool system_log::admits(int priority) const
{
    return (current_log_mask(*m_state) & LOG_MASK(priority)) != 0;
}

// Debug lines that the mask would not let pass are not to take room from others.
bool system_log::takes(int priority) const
{
    return !is_in_child() && (priority != LOG_DEBUG || admits(LOG_DEBUG));
}

void system_log::lose(int priority)
{
    if (!takes(priority))
        return;
    const rtls::mutex_guard lock(m_state->mutex);
    m_state->queue.lose();
    m_unstored.fetch_add(1, std::memory_order_relaxed);
    m_state->work.notify_one();
}

void system_log::write(int priority, std::string_view text, const void* kind)
{
    if (!takes(priority))
        return;
    std::string line(text); // not under the lock
    const auto now = steady_clock::now();
    const rtls::mutex_guard lock(m_state->mutex);
    if (!m_state->rate.admits(kind, now)) {
        m_state->queue.hold_back();
        m_held_back.fetch_add(1, std::memory_order_relaxed);
    } else if (m_state->queue.push_line(priority, std::move(line))) {
        m_queued.fetch_add(1, std::memory_order_relaxed);
    } else {
        m_lost.fetch_add(1, std::memory_order_relaxed);
    }
    m_state->work.notify_one();
}

system_log::counters system_log::count() const
{
    const auto relaxed = std::memory_order_relaxed;
    return {m_queued.load(relaxed), m_state->written.load(relaxed), m_lost.load(relaxed),
            m_held_back.load(relaxed), m_unstored.load(relaxed)};
}

bool system_log::is_carried_on() const
{
    const rtls::mutex_guard lock(m_state->mutex);
    return !m_state->has_ended;
}

} // namespace tav::libs::core
