#include "impl/logger.h"

#include <locale>

namespace tav::libs::core {

// Formatting looks characters up in tables of the global locale, which the standard library fills on first
// use and without a lock. So they are filled here, before several threads can format at once.
static void fill_character_tables()
{
    const std::locale global;
    const auto& characters = std::use_facet<std::ctype<char>>(global);
    char blank = characters.widen(' ');
    characters.narrow(&blank, &blank + 1, '\0', &blank);
}

logger::logger(std::string_view application_name, std::string_view component_name)
    : component_logger(*this, application_name, component_name), m_module_name(application_name),
      m_broker(m_zmq_context), m_system_log(application_name)
{
    fill_character_tables();
    // Not by a formatter: its record would end the process where this may still throw.
    write(LOG_INFO, "Starting " + m_module_name, "Starting %1%");
}

logger::~logger()
{
    m_broker.close(); // it lingers behind the scenes, so that the two waits are one
    m_system_log.close();
    m_zmq_context.close();
}

void logger::set_debug(bool on)
{
    m_system_log.set_debug(on);
    m_debug.store(on, std::memory_order_relaxed);
}

void logger::secure(const char* server_key, const char* own_public, const char* own_secret)
{
    const rtls::mutex_guard lock(m_socket_mutex);
    m_broker.secure(server_key, own_public, own_secret);
}

void logger::connect(const std::string& address)
{
    {
        const rtls::mutex_guard lock(m_socket_mutex);
        m_broker.connect(address);
        m_has_broker.store(true, std::memory_order_relaxed);
    }
    write(LOG_DEBUG, "Connected to socket", "Connected to socket");
}

std::unique_ptr<component_logger> logger::component(std::string_view name)
{
    return std::make_unique<component_logger>(*this, m_module_name, name);
}

void logger::lose(int log_level)
{
    m_system_log.lose(log_level);
    if (is_publishing())
        m_unpublished.fetch_add(1, std::memory_order_relaxed);
}

void logger::tend_broker()
{
    if (!m_has_broker.load(std::memory_order_relaxed))
        return;
    const char* reason = nullptr;
    {
        const rtls::mutex_guard lock(m_socket_mutex);
        reason = m_broker.tend(broker_link::clock::now());
        m_unpublished.fetch_add(m_broker.take_lost(), std::memory_order_relaxed);
    }
    if (reason != nullptr)
        write(LOG_WARNING, std::string("debug broker: ") + reason + ", connecting again", reason);
}

rtls::link_state logger::broker_state()
{
    const rtls::mutex_guard lock(m_socket_mutex);
    return m_broker.state();
}

void logger::publish(std::string_view record)
{
    const rtls::mutex_guard lock(m_socket_mutex);
    try {
        if (m_broker.send(record))
            return;
    } catch (const zmq::error_t&) {
        // A log that cannot be sent must not be what ends the daemon.
    }
    m_unpublished.fetch_add(1, std::memory_order_relaxed);
}

} // namespace tav::libs::core
