#include "watch/service_manager.h"

#include "link/client_table.h"
#include "server/win_server.h"
#include "watch/systemd.h"

#include <new>

namespace rtls {

static constexpr int64_t status_period_ms = 10'000;

service_manager::service_manager(services& gateway) noexcept
    : m_gateway(gateway), m_is_there(systemd_listens()),
      m_watchdog_ms(m_is_there ? systemd_watchdog_ms() : 0), m_pulse(gateway)
{
}

void service_manager::ready() noexcept
{
    if (m_is_there)
        systemd_tell("READY=1");
}

void service_manager::stopping() noexcept
{
    if (m_is_there)
        systemd_tell("STOPPING=1");
}

void service_manager::tend() noexcept
try {
    if (!m_is_there)
        return;
    const int64_t now = zclock_mono();
    if (m_watchdog_ms != 0)
        keep_alive(now);
    tell_status(now);
} catch (const std::bad_alloc&) {
    // the next time, then
}

void service_manager::keep_alive(int64_t now_ms)
{
    if (now_ms < m_next_sign || !m_pulse.is_beating(now_ms))
        return;
    m_next_sign = now_ms + m_watchdog_ms / 2;
    systemd_tell("WATCHDOG=1");
}

void service_manager::tell_status(int64_t now_ms)
{
    if (now_ms < m_next_status)
        return;
    m_next_status = now_ms + status_period_ms;
    systemd_tell(("STATUS=" + status_line(m_gateway)).c_str());
}

static size_t nodes_of(NODES_CONTAINER_t& nodes)
{
    const nodes_guard guard{nodes};
    return nodes.size();
}

std::string status_line(services& gateway)
{
    std::string line = std::to_string(win_server_clients_number(*gateway.win_server)) + " bridges, " +
                       std::to_string(nodes_of(*gateway.nodes)) + " nodes";
    const char* separator = "; ";
    for (const auto& [name, state] : win_server_links(*gateway.win_server)) {
        line.append(separator).append(name).append(state.is_up ? " up" : " down");
        separator = ", ";
    }
    return line;
}

} // namespace rtls
