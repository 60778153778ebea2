#include "impl/clogger.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <string_view>

using tav::libs::core::component_logger;
using tav::libs::core::timestamp;

namespace {

// Logging often stands between a failed call and the reading of its errno.
class errno_keeper {
public:
    errno_keeper() = default;
    ~errno_keeper() { errno = m_errno; }
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;

private:
    int m_errno = errno;
};

} // namespace

namespace {

// The text that printf would print; empty if the arguments cannot be converted. Nearly all find room on the stack.
class formatted_text {
public:
    __attribute__((format(printf, 2, 0))) formatted_text(const char* format, va_list arguments)
    {
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(m_usual.data(), m_usual.size(), format, arguments);
        if (length >= static_cast<int>(m_usual.size())) {
            m_long.resize(static_cast<size_t>(length));
            // The terminating zero goes where the string keeps its own.
            (void)std::vsnprintf(m_long.data(), m_long.size() + 1, format, again);
            m_text = m_long;
        } else if (length > 0)
            m_text = {m_usual.data(), static_cast<size_t>(length)};
        va_end(again);
    }
    formatted_text(const formatted_text&) = delete;
    formatted_text& operator=(const formatted_text&) = delete;
    std::string_view view() const { return m_text; }

private:
    std::array<char, 1024> m_usual; // not cleared: what is read is written
    std::string m_long;
    std::string_view m_text;
};

} // namespace

// When there is no memory for the record, it is lost, and the system log says so: whoever has to report just
// that must not end the process with it.
template <typename Write>
static void write_or_lose(const component_logger& component, int log_level, Write write) noexcept
{
    const errno_keeper keeper;
    try {
        write();
    } catch (const std::bad_alloc&) {
        component.lose(log_level);
    }
}

static __attribute__((format(printf, 3, 0))) void
write_record(const component_logger& component, int log_level, const char* format, va_list arguments,
             const std::optional<timestamp>& time = {}) noexcept
{
    write_or_lose(component, log_level, [&] {
        component.write(log_level, formatted_text{format, arguments}.view(), format, time);
    });
}

static void report_failed_connect(const component_logger& component, const zmq::error_t& failure) noexcept
{
    static constexpr char head[] = "logger_connect: zmq_connect: ";
    write_or_lose(component, LOG_ERR, [&] {
        component.write(LOG_ERR, head + std::to_string(failure.num()) + ", " + failure.what(), head);
    });
}

static void report_short_memory(const component_logger& component) noexcept
{
    static constexpr char text[] = "logger_connect: out of memory!";
    write_or_lose(component, LOG_ERR, [&] { component.write(LOG_ERR, text, text); });
}

tav_logger create_logger(const char* name)
{
    if (!name)
        return nullptr;
    try {
        return new tav_logger_handle{{name, "logger"}};
    } catch (const std::exception&) {
        return nullptr; // no memory, no descriptors for the socket, no thread
    }
}

void destroy_logger(tav_logger logger)
{
    delete logger;
}

bool logger_flush(tav_logger logger, unsigned timeout_ms)
{
    try {
        return logger && logger->m_logger.flush(std::chrono::milliseconds(timeout_ms));
    } catch (const std::bad_alloc&) {
        return false;
    }
}

tav_log_counters logger_get_counters(tav_logger logger)
{
    if (!logger)
        return {};
    const auto lines = logger->m_logger.system_log_counters();
    return {lines.queued,    lines.written,  lines.lost,
            lines.held_back, lines.unstored, logger->m_logger.unpublished()};
}

bool logger_thread_lives(tav_logger logger)
{
    return logger && logger->m_logger.is_system_log_carried_on();
}

bool logger_secure(tav_logger logger, const char* server_key, const char* own_public, const char* own_secret)
{
    if (!logger || !server_key || !own_public || !own_secret)
        return false;
    try {
        logger->m_logger.secure(server_key, own_public, own_secret);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void logger_connect(tav_logger logger, const char* address)
{
    if (!logger || !address)
        return;
    try {
        logger->m_logger.connect(address);
    } catch (const zmq::error_t& failure) {
        report_failed_connect(logger->m_logger, failure);
    } catch (const std::bad_alloc&) {
        report_short_memory(logger->m_logger);
    }
}

void logger_tend_broker(tav_logger logger)
{
    if (logger)
        write_or_lose(logger->m_logger, LOG_WARNING, [&] { logger->m_logger.tend_broker(); });
}

tav_link_state logger_get_broker_state(tav_logger logger)
{
    if (logger == nullptr)
        return {};
    const rtls::link_state link = logger->m_logger.broker_state();
    tav_link_state state{link.is_up, link.since_ms, link.connections, link.failures, link.last_reason, {}};
    static_assert(std::size(state.failures_of) == rtls::link_failures);
    std::ranges::copy(link.failures_of, state.failures_of);
    return state;
}

tav_component_logger create_component_logger(tav_logger logger, const char* name)
{
    if (!logger || !name)
        return nullptr;
    try {
        return new tav_component_logger_handle{logger->m_logger.component(name)};
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void destroy_component_logger(tav_component_logger logger)
{
    delete logger;
}

bool logger_debug_is_wanted(tav_component_logger logger)
{
    return logger && logger->m_component->is_debug_wanted();
}

void logger_debug(tav_component_logger logger, const char* format, ...)
{
    if (!logger_debug_is_wanted(logger))
        return;
    va_list arguments;
    va_start(arguments, format);
    write_record(*logger->m_component, LOG_DEBUG, format, arguments);
    va_end(arguments);
}

void logger_debug_ts(tav_component_logger logger, tav_timestamp_t time, const char* format, ...)
{
    if (!logger_debug_is_wanted(logger))
        return;
    va_list arguments;
    va_start(arguments, format);
    write_record(*logger->m_component, LOG_DEBUG, format, arguments,
                 timestamp(time.seconds, time.milliseconds));
    va_end(arguments);
}

void logger_info(tav_component_logger logger, const char* format, ...)
{
    if (!logger)
        return;
    va_list arguments;
    va_start(arguments, format);
    write_record(*logger->m_component, LOG_INFO, format, arguments);
    va_end(arguments);
}

void logger_warning(tav_component_logger logger, const char* format, ...)
{
    if (!logger)
        return;
    va_list arguments;
    va_start(arguments, format);
    write_record(*logger->m_component, LOG_WARNING, format, arguments);
    va_end(arguments);
}

void logger_error(tav_component_logger logger, const char* format, ...)
{
    if (!logger)
        return;
    va_list arguments;
    va_start(arguments, format);
    write_record(*logger->m_component, LOG_ERR, format, arguments);
    va_end(arguments);
}
