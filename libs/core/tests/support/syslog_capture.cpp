#include "support/syslog_capture.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <utility>

namespace {

constexpr auto patience = std::chrono::seconds(10);

struct captured_log {
    std::mutex libc_mutex; // before the other one

    std::mutex mutex; // guards the rest, and is never held for long
    std::condition_variable changed;
    const char* identity = nullptr;
    int options = 0;
    int facility = 0;
    int mask = LOG_UPTO(LOG_DEBUG);
    std::vector<syslog_capture::captured_line> lines;
    std::optional<syslog_capture::stuck> stuck;
    bool is_somebody_stuck = false;
    int reading_again = -1; // of the last time that nobody read
};

// Not destroyed: a thread may still be stuck in it when the program ends.
captured_log& system_log()
{
    static auto* const log = new captured_log;
    return *log;
}

struct stuck_call {
    bool can_be_cancelled;
    int reading_again;
};

std::optional<stuck_call> get_stuck()
{
    captured_log& log = system_log();
    const std::lock_guard lock(log.mutex);
    if (!log.stuck)
        return std::nullopt;
    log.is_somebody_stuck = true;
    log.changed.notify_all();
    return stuck_call{*log.stuck == syslog_capture::stuck::cancellable, log.reading_again};
}

// In read(), which is a cancellation point. Nothing on the way here is noexcept.
void wait_for_the_reader()
{
    const auto stuck = get_stuck();
    if (!stuck)
        return;
    int old_state = 0;
    if (!stuck->can_be_cancelled)
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state);
    uint64_t value = 0;
    (void)!read(stuck->reading_again, &value, sizeof value);
    if (!stuck->can_be_cancelled)
        pthread_setcancelstate(old_state, nullptr);
}

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list arguments)
{
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0)
        return {};
    std::string result = text;
    std::free(text);
    return result;
}

void store(int priority, std::string text)
{
    captured_log& log = system_log();
    const std::lock_guard lock(log.mutex);
    const char* identity = log.identity != nullptr ? log.identity : "";
    log.lines.push_back({identity, log.options, log.facility, priority, std::move(text)});
    log.changed.notify_all();
}

} // namespace

extern "C" {

void openlog(const char* ident, int option, int facility)
{
    const std::lock_guard libc_lock(system_log().libc_mutex);
    const std::lock_guard lock(system_log().mutex);
    system_log().identity = ident;
    system_log().options = option;
    system_log().facility = facility;
}

void closelog()
{
    const std::lock_guard libc_lock(system_log().libc_mutex);
    const std::lock_guard lock(system_log().mutex);
    system_log().identity = nullptr;
}

int setlogmask(int mask)
{
    const std::lock_guard libc_lock(system_log().libc_mutex);
    const std::lock_guard lock(system_log().mutex);
    const int old = system_log().mask;
    if (mask != 0) // 0 asks only
        system_log().mask = mask;
    return old;
}

__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char* format, va_list arguments)
{
    std::string text = formatted(format, arguments);
    const std::lock_guard libc_lock(system_log().libc_mutex);
    if ((LOG_MASK(priority) & syslog_capture::mask()) == 0)
        return;
    wait_for_the_reader();
    store(priority, std::move(text));
}

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

// What syslog becomes where the compiler fortifies calls of libc.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"

std::vector<syslog_capture::captured_line> syslog_capture::take()
{
    const std::lock_guard lock(system_log().mutex);
    return std::exchange(system_log().lines, {});
}

std::vector<std::string> syslog_capture::take_texts()
{
    std::vector<std::string> texts;
    for (auto& line : take())
        texts.push_back(std::move(line.text));
    return texts;
}

bool syslog_capture::wait_for(const std::function<bool(const std::vector<captured_line>&)>& condition)
{
    std::unique_lock lock(system_log().mutex);
    return system_log().changed.wait_for(lock, patience, [&] { return condition(system_log().lines); });
}

int syslog_capture::mask()
{
    const std::lock_guard lock(system_log().mutex);
    return system_log().mask;
}

bool syslog_capture::is_open()
{
    const std::lock_guard lock(system_log().mutex);
    return system_log().identity != nullptr;
}

void syslog_capture::stop_reading(stuck how)
{
    const std::lock_guard lock(system_log().mutex);
    system_log().stuck = how;
    system_log().is_somebody_stuck = false;
    system_log().reading_again = eventfd(0, 0); // never closed: somebody may still look at the last one
}

void syslog_capture::wait_until_stuck()
{
    std::unique_lock lock(system_log().mutex);
    system_log().changed.wait(lock, [] { return system_log().is_somebody_stuck; });
}

void syslog_capture::read_again()
{
    const std::lock_guard lock(system_log().mutex);
    if (!system_log().stuck.has_value())
        return;
    system_log().stuck.reset();
    const uint64_t one = 1;
    (void)!write(system_log().reading_again, &one, sizeof one);
}
