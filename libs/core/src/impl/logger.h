// logger - the sinks of all log records of an application: the system log and the debug broker.
//
// Ownership  Owns its ZeroMQ context and socket; must outlive the component loggers that it makes.
// Threads    Any, all at once; the socket is guarded by a mutex. One logger per process at a time, as
//            the system log has only one identity.
// Failures   The constructor and connect() throw zmq::error_t or std::bad_alloc, the constructor also
//            std::system_error. A constructor that throws leaves the system log closed.
#pragma once

#include "core/thread_annotations.h"
#include "impl/broker_link.h"
#include "impl/component_logger.h"
#include "impl/system_log.h"

#include <zmq.hpp>

#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tav::libs::core {

// Its own records are those of a component, too.
class logger : public component_logger {
public:
    logger(std::string_view application_name, std::string_view component_name);
    ~logger(); // waits up to five seconds for the system log and a connected broker to take the last records

    // Debugging lets the system log take debug records and copies all of its lines to standard error.
    void set_debug(bool on);
    bool is_debug() const { return m_debug.load(std::memory_order_relaxed); }

    // Brokers connected from now on are spoken to by CurveZMQ. Throws zmq::error_t.
    void secure(const char* server_key, const char* own_public, const char* own_secret);

    // Connects one more broker; several get the records in turn. What throws std::bad_alloc may be the
    // record of it: the broker is connected then.
    void connect(const std::string& address);

    bool is_writing_to_socket() const { return m_writing_to_socket.load(std::memory_order_relaxed); }
    void set_writing_to_socket(bool on) { m_writing_to_socket.store(on, std::memory_order_relaxed); }

    // Governs the reporting of exceptions only.
    bool is_logger_enabled() const { return m_enable_logger.load(std::memory_order_relaxed); }
    void set_logger_enabled(bool on) { m_enable_logger.store(on, std::memory_order_relaxed); }

    std::unique_ptr<component_logger> component(std::string_view name);

    // Whether records go to a broker. Before the first connect the socket could only drop them.
    bool is_publishing() const
    {
        return m_has_broker.load(std::memory_order_relaxed) && is_writing_to_socket();
    }

    // Whether a debug record would reach anybody now.
    bool is_debug_wanted() const { return is_publishing() || m_system_log.admits(LOG_DEBUG); }

    // Whether a record of this level must be composed. All but debug records go to the system log anyway.
    bool is_wanted(int log_level) const { return log_level != LOG_DEBUG || is_debug_wanted(); }

    // One line to the system log, of this kind (see rate_limit). Never waits.
    void write_to_system_log(int log_level, std::string_view line, const char* kind)
    {
        m_system_log.write(log_level, line, kind);
    }

    // Counts a record of this level that there is no memory for. Needs none itself.
    void lose(int log_level);

    // Waits until the system log has all lines so far. False: not in time.
    bool flush(std::chrono::milliseconds timeout) { return m_system_log.flush(timeout); }

    // Sends one record to a broker. Never waits: a record that cannot go at once is lost.
    void publish(std::string_view record);

    // Looks after the connections with the brokers; to be called several times a second. Never waits.
    void tend_broker();
    // Of the connection with the broker.
    rtls::link_state broker_state();

    system_log::counters system_log_counters() const { return m_system_log.count(); }
    bool is_system_log_carried_on() const { return m_system_log.is_carried_on(); }
    uint64_t unpublished() const { return m_unpublished.load(std::memory_order_relaxed); }

private:
    std::string m_module_name;
    std::atomic<bool> m_debug{false};
    std::atomic<bool> m_writing_to_socket{true};
    std::atomic<bool> m_enable_logger{true};
    std::atomic<bool> m_has_broker{false};
    std::atomic<uint64_t> m_unpublished{0}; // records that a broker should have got
    zmq::context_t m_zmq_context;
    rtls::annotated_mutex m_socket_mutex;
    broker_link m_broker RTLS_GUARDED_BY(m_socket_mutex);
    system_log m_system_log;
};

} // namespace tav::libs::core
