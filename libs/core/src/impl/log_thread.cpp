#include "impl/log_thread.h"

#include "impl/timestamp.h"

#include <syslog.h>

#include <array>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

namespace tav::libs::core {

using state_ptr = std::shared_ptr<log_thread_state>;

static constexpr int every_priority = LOG_UPTO(LOG_DEBUG);
static constexpr int all_but_debug = LOG_UPTO(LOG_INFO);

static constexpr char lost_text[] = "Log lines lost while the system log took none";
static constexpr char held_back_text[] = "Log lines held back beyond 1000 in a second";
static constexpr char unstored_text[] = "Log lines lost as memory was short";
static_assert(rate_limit::lines_each_second == 1000);

// Held from opening to closing.
static rtls::annotated_mutex log_owner;

// Set while somebody is in libc's functions for the system log. They wait for each other, as long as it
// takes: who may not wait looks here first.
static std::atomic_flag libc_is_busy;

namespace {

class libc_use {
public:
    libc_use()
    {
        while (libc_is_busy.test_and_set(std::memory_order_acquire)) // by who asks for the mask: nanoseconds
            std::this_thread::yield();
    }
    ~libc_use() { libc_is_busy.clear(std::memory_order_release); }
    libc_use(const libc_use&) = delete;
    libc_use& operator=(const libc_use&) = delete;
};

// The scope in which the thread may be cancelled. That unwinds the stack: no function from the thread's first
// to here may be noexcept.
class cancellable {
public:
    cancellable() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
    ~cancellable() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    cancellable(const cancellable&) = delete;
    cancellable& operator=(const cancellable&) = delete;
};

} // namespace

static void note_mask(log_thread_state& state)
{
    state.mask.store(setlogmask(0), std::memory_order_relaxed);
}

// The date before a line; none when there is no memory for it.
static std::string date_prefix()
{
    try {
        return timestamp::current_time().to_iso_8601(true, ' ', false) + " ";
    } catch (const std::bad_alloc&) {
        return {};
    }
}

namespace {

// The log, open from the first set_debug() on for as long as this lives.
class opened_log {
public:
    explicit opened_log(log_thread_state& state) : m_state(state) {}
    ~opened_log()
    {
        const libc_use use;
        closelog();
    }
    opened_log(const opened_log&) = delete;
    opened_log& operator=(const opened_log&) = delete;

    void follow(const log_entry& entry)
    {
        using action = log_entry::action;
        notice(lost_text, entry.before.lost);
        notice(held_back_text, entry.before.held_back);
        notice(unstored_text, entry.before.unstored);
        if (entry.what == action::write) {
            say(entry.priority, entry.text.c_str());
            m_state.written.fetch_add(1, std::memory_order_relaxed);
        } else if (entry.what != action::mark) {
            set_debug(entry.what == action::debug_on);
        }
    }

private:
    void set_debug(bool on)
    {
        const libc_use use;
        closelog();
        openlog(m_state.name.c_str(), on ? LOG_PERROR : 0, LOG_USER);
        setlogmask(on ? every_priority : all_but_debug);
        note_mask(m_state);
        m_is_debug = on;
    }

    void say(int priority, const char* text)
    {
        const libc_use use;
        const cancellable here;
        syslog(priority, "%s", text);
    }

    // Dated, as all lines are while debugging.
    void notice(const char* text, uint64_t number)
    {
        if (number == 0)
            return;
        std::array<char, 128> line{};
        (void)std::snprintf(line.data(), line.size(), "%s%s: %" PRIu64,
                            m_is_debug ? date_prefix().c_str() : "", text, number);
        say(LOG_WARNING, line.data());
    }

    log_thread_state& m_state;
    bool m_is_debug = false;
};

} // namespace

// Whether lines are missing that no entry speaks of, and it is time to say so: the queue is empty now, so
// there is room again; or the second is over.
static bool is_gap_due(const log_thread_state& state) RTLS_REQUIRES(state.mutex)
{
    const log_gap& gap = state.queue.gap();
    const bool is_second_over = std::chrono::steady_clock::now() >= state.rate.end_of_second();
    return gap.lost != 0 || gap.unstored != 0 || (gap.held_back != 0 && (state.is_closing || is_second_over));
}

static void wait_for_work(log_thread_state& state) RTLS_REQUIRES(state.mutex)
{
    if (state.queue.gap().held_back != 0)
        state.work.wait_until(state.mutex, state.rate.end_of_second());
    else
        state.work.wait(state.mutex);
}

// Nothing at the end.
static std::optional<log_entry> next_entry(log_thread_state& state)
{
    const rtls::mutex_guard lock(state.mutex);
    while (!state.is_given_up) {
        if (!state.queue.is_empty())
            return state.queue.pop();
        if (is_gap_due(state))
            return state.queue.end_gap();
        if (state.is_closing)
            break;
        wait_for_work(state);
    }
    return std::nullopt;
}

static void follow_entries(log_thread_state& state)
{
    opened_log log(state);
    while (const auto entry = next_entry(state)) {
        log.follow(*entry);
        const rtls::mutex_guard lock(state.mutex);
        ++state.followed;
        state.progress.notify_all();
    }
}

namespace {

// Tells the owner, whichever way the thread ends.
class end_notice {
public:
    explicit end_notice(log_thread_state& state) : m_state(state) {}
    ~end_notice()
    {
        const rtls::mutex_guard lock(m_state.mutex);
        m_state.has_ended = true;
        m_state.progress.notify_all();
    }
    end_notice(const end_notice&) = delete;
    end_notice& operator=(const end_notice&) = delete;

private:
    log_thread_state& m_state;
};

} // namespace

static void* run_log_thread(void* argument)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setname_np(pthread_self(), "rtls-log");
    const std::unique_ptr<state_ptr> state(static_cast<state_ptr*>(argument));
    const end_notice notice(**state);
    const rtls::mutex_guard ownership(log_owner);
    follow_entries(**state);
    return nullptr;
}

namespace {

class thread_attributes {
public:
    thread_attributes()
    {
        pthread_attr_init(&m_attributes);
        sigset_t all;
        sigfillset(&all);
        pthread_attr_setsigmask_np(&m_attributes, &all);
    }
    ~thread_attributes() { pthread_attr_destroy(&m_attributes); }
    thread_attributes(const thread_attributes&) = delete;
    thread_attributes& operator=(const thread_attributes&) = delete;

    const pthread_attr_t* get() const { return &m_attributes; }

private:
    pthread_attr_t m_attributes{};
};

} // namespace

pthread_t start_log_thread(const state_ptr& state)
{
    auto argument = std::make_unique<state_ptr>(state);
    const thread_attributes attributes;
    pthread_t thread{};
    const int rc = pthread_create(&thread, attributes.get(), run_log_thread, argument.get());
    if (rc != 0)
        throw std::system_error(rc, std::generic_category(), "pthread_create");
    (void)argument.release(); // the thread's
    return thread;
}

int current_log_mask(log_thread_state& state)
{
    if (!libc_is_busy.test_and_set(std::memory_order_acquire)) {
        note_mask(state);
        libc_is_busy.clear(std::memory_order_release);
    }
    return state.mask.load(std::memory_order_relaxed);
}

} // namespace tav::libs::core
