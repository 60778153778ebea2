#include "impl/component_logger.h"

#include "impl/logger.h"

#include <syslog.h>

namespace tav::libs::core {

static constexpr size_t blanks_per_level = 4;

component_logger::component_logger(logger& owner, std::string_view application_name,
                                   std::string_view component_name)
    : m_logger(owner), m_module_name(application_name)
{
    m_zmq_prefix.append("&").append(m_module_name).append(":").append(component_name).append(" ");
}

component_logger::formatter component_logger::debug(const char* pattern) const
{
    return {*this, LOG_DEBUG, pattern};
}

component_logger::formatter component_logger::info(const char* pattern) const
{
    return {*this, LOG_INFO, pattern};
}

component_logger::formatter component_logger::warning(const char* pattern) const
{
    return {*this, LOG_WARNING, pattern};
}

component_logger::formatter component_logger::error(const char* pattern) const
{
    return {*this, LOG_ERR, pattern};
}

bool component_logger::is_debug_wanted() const
{
    return m_logger.is_debug_wanted();
}

// All output happens here. The broker always sees date and indentation; the system log dates its
// lines by itself and gets them only while it is used for debugging.
void component_logger::write(int log_level, std::string_view text, const char* kind,
                             const std::optional<timestamp>& time) const
{
    const bool is_debug = m_logger.is_debug();
    const bool is_publishing = m_logger.is_publishing();
    std::string record;
    if (is_debug || is_publishing)
        record = dated_record(text, time ? *time : timestamp::current_time());
    const std::string_view line = is_debug ? std::string_view(record).substr(m_zmq_prefix.size()) : text;
    m_logger.write_to_system_log(log_level, line, kind);
    if (is_publishing)
        m_logger.publish(record);
}

// As the broker gets it, composed in one piece of memory; behind the prefix it is a line of the system log.
std::string component_logger::dated_record(std::string_view text, const timestamp& time) const
{
    std::string record;
    record.reserve(m_zmq_prefix.size() + timestamp::usual_size + 1 + text.size());
    record += m_zmq_prefix;
    time.append_iso_8601(record, true, ' ', false);
    record += ' ';
    if (m_indent.load(std::memory_order_relaxed) != 0)
        record += indent();
    return record += text;
}

void component_logger::lose(int log_level) const
{
    m_logger.lose(log_level);
}

std::string component_logger::indent() const
{
    const int depth = m_indent.load(std::memory_order_relaxed);
    if (depth == 0)
        return {};
    return std::string(blanks_per_level * static_cast<size_t>(depth), ' ') + "| ";
}

scope_guard_ptr component_logger::deepen() const
{
    m_indent.fetch_add(1, std::memory_order_relaxed);
    return execute_on_scope_exit([this] { m_indent.fetch_sub(1, std::memory_order_relaxed); });
}

scope_guard_ptr component_logger::enter_function(const source_location& location) const
{
    debug("%1%") % location.m_function;
    return deepen();
}

scope_guard_ptr component_logger::enter_function_short(const source_location& location,
                                                       std::string_view text) const
{
    debug("%1%: %2%") % location.short_function() % text;
    return deepen();
}

scope_guard_ptr component_logger::enter_scope(const source_location& location) const
{
    debug("%1%:%2%") % location.short_file() % location.m_line;
    return deepen();
}

scope_guard_ptr component_logger::enter_scope(std::string_view text) const
{
    debug("%1%") % text;
    return deepen();
}

scope_guard_ptr component_logger::enter_scope(const source_location& location, std::string_view text) const
{
    debug("%1%:%2% (%3%)") % location.short_file() % location.m_line % text;
    return deepen();
}

void component_logger::log_exception() const
{
    if (m_logger.is_logger_enabled())
        error("%1%") % exception_to_string();
}

void component_logger::log_exception(const source_location& location) const
{
    error("Caught exeption").location(location); // "exeption": sic, log filters look for it
    log_exception();
}

void component_logger::log_exception(const located_exception& exception) const
{
    error("%1%") % exception_to_string(exception);
}

void component_logger::log_error(const boost::system::error_code& code, const source_location& location) const
{
    error("%1%:%2%: %3%") % location.short_file() % location.m_line % code.message();
}

component_logger::formatter::formatter(const component_logger& component, int log_level, const char* pattern)
    : m_format(pattern), m_log_level(log_level), m_kind(pattern), m_logger(component)
{
}

component_logger::formatter& component_logger::formatter::location(const source_location& location)
{
    m_source_location = location;
    return *this;
}

component_logger::formatter& component_logger::formatter::function(const source_location& location)
{
    m_function = location.m_function;
    return *this;
}

component_logger::formatter& component_logger::formatter::short_function(const source_location& location)
{
    m_function = location.short_function();
    return *this;
}

component_logger::formatter& component_logger::formatter::date_time(const timestamp& time)
{
    m_timestamp = time;
    return *this;
}

std::string component_logger::formatter::text() const
{
    std::string text;
    if (m_source_location) {
        text += m_source_location->short_file();
        text += ':' + std::to_string(m_source_location->m_line) + ' ';
    }
    if (!m_function.empty()) {
        text += m_function;
        text += ": ";
    }
    return text + m_format.str();
}

component_logger::formatter::~formatter()
{
    if (m_logger.m_logger.is_wanted(m_log_level))
        m_logger.write(m_log_level, text(), m_kind, m_timestamp);
}

} // namespace tav::libs::core
