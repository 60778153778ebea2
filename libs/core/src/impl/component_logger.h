// component_logger - writes the log records of one component of the application.
//
// A record is composed by a short-lived formatter, which writes it on its own destruction:
//     component.info("Client %1% from %2%") % id % address;
// Ownership  Borrows its logger, which must outlive it.
// Threads    Any, all at once. The nesting depth of traced scopes is shared by all threads.
// Failures   What keeps a record from being composed (a pattern that does not fit its arguments, no
//            memory) ends the process; so patterns are constants. What keeps it from being sent does not.
#pragma once

#include "impl/located_exception.h"
#include "impl/scope_guard.h"
#include "impl/source_location.h"
#include "impl/timestamp.h"

#include <boost/format.hpp>
#include <boost/system/error_code.hpp>

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

namespace tav::libs::core {

class logger;

class component_logger {
public:
    class formatter;

    component_logger(logger& owner, std::string_view application_name, std::string_view component_name);
    component_logger(const component_logger&) = delete;
    component_logger& operator=(const component_logger&) = delete;

    // A record each, of the level that the name says. The pattern is Boost.Format's.
    formatter debug(const char* pattern) const;
    formatter info(const char* pattern) const;
    formatter warning(const char* pattern) const;
    formatter error(const char* pattern) const;

    // Whether a debug record would reach anybody now.
    bool is_debug_wanted() const;

    // Writes one record, dated now unless told otherwise. Records of one kind share that pointer (see
    // rate_limit). Throws std::bad_alloc, and then nothing of it is written.
    void write(int log_level, std::string_view text, const char* kind,
               const std::optional<timestamp>& time = {}) const;

    // Counts one record as lost for want of memory; the system log will say so, if it is a line of it.
    void lose(int log_level) const;

    // Trace the entry into a function or scope with a debug record. Records are indented by one level
    // more for as long as the guard lives; leaving writes nothing.
    [[nodiscard]] scope_guard_ptr enter_function(const source_location& location) const;
    [[nodiscard]] scope_guard_ptr enter_function_short(const source_location& location,
                                                       std::string_view text) const;
    [[nodiscard]] scope_guard_ptr enter_scope(const source_location& location) const;
    [[nodiscard]] scope_guard_ptr enter_scope(std::string_view text) const;
    [[nodiscard]] scope_guard_ptr enter_scope(const source_location& location, std::string_view text) const;

    // Report the exception being handled, if the logger is enabled; the second form always says where
    // it was caught. Only inside a handler.
    void log_exception() const;
    void log_exception(const source_location& location) const;

    void log_exception(const located_exception& exception) const;
    void log_error(const boost::system::error_code& error, const source_location& location) const;

private:
    std::string dated_record(std::string_view text, const timestamp& time) const;
    std::string indent() const;
    [[nodiscard]] scope_guard_ptr deepen() const;

    mutable std::atomic<int> m_indent{0}; // depth of traced scopes
    logger& m_logger;
    std::string m_module_name; // the application's
    std::string m_zmq_prefix;  // "&application:component "
};

// One record in the making. The optional parts may be set in any order.
class component_logger::formatter {
public:
    formatter(const component_logger& component, int log_level, const char* pattern);
    ~formatter();
    formatter(const formatter&) = delete;
    formatter& operator=(const formatter&) = delete;

    // Feeds the pattern's next argument.
    template <typename Argument>
    formatter& operator%(const Argument& argument)
    {
        m_format % argument;
        return *this;
    }

    formatter& location(const source_location& location);       // the record starts "file:line "
    formatter& function(const source_location& location);       // then the signature and ": "
    formatter& short_function(const source_location& location); // or the short name and ": "
    formatter& date_time(const timestamp& time);                // instead of now

private:
    std::string text() const;

    boost::format m_format;
    int m_log_level;    // a priority of syslog
    const char* m_kind; // the pattern, see rate_limit
    const component_logger& m_logger;
    std::optional<source_location> m_source_location;
    std::string_view m_function;
    std::optional<timestamp> m_timestamp;
};

} // namespace tav::libs::core
