#include "support/syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace {

struct system_log_t {
    std::mutex mutex;
    const char* identity = nullptr;
    int options = 0;
    int facility = 0;
    int mask = LOG_UPTO(LOG_DEBUG);
    std::vector<syslog_capture::line_t> lines;
};

system_log_t& system_log()
{
    static system_log_t log;
    return log;
}

} // namespace

extern "C" {

void openlog(const char* ident, int option, int facility)
{
    const std::lock_guard lock(system_log().mutex);
    system_log().identity = ident;
    system_log().options = option;
    system_log().facility = facility;
}

void closelog()
{
    const std::lock_guard lock(system_log().mutex);
    system_log().identity = nullptr;
}

int setlogmask(int mask)
{
    const std::lock_guard lock(system_log().mutex);
    const int old = system_log().mask;
    if (mask != 0) // 0 asks only
        system_log().mask = mask;
    return old;
}

void vsyslog(int priority, const char* format, va_list arguments)
{
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    const std::lock_guard lock(system_log().mutex);
    system_log_t& log = system_log();
    if (length >= 0 && (LOG_MASK(priority) & log.mask) != 0)
        log.lines.push_back(
            {log.identity != nullptr ? log.identity : "", log.options, log.facility, priority, text});
    std::free(text);
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
void __syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"

std::vector<syslog_capture::line_t> syslog_capture::take()
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
