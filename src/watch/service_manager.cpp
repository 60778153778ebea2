#include "watch/service_manager.h"

#include "metrics/metrics.h"
#include "server/win_server.h"
#include "watch/systemd.h"

#include <map>
#include <new>
#include <string_view>

namespace rtls {

static constexpr int64_t status_period_ms = 10'000;

service_manager::service_manager(const services& gateway) noexcept
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

namespace {

// The sums of the few figures that stand in the line.
class picked_figures : public metric_sink {
public:
    void begin(const metric& of) override { m_name = of.name; }
    void sample(labels /*of*/, double value) override { m_sums[m_name] += value; }
    void times(labels /*of*/, const times_sample& /*sample*/) override {}

    std::string text_of(const char* name) const
    {
        const auto found = m_sums.find(name);
        return std::to_string(static_cast<uint64_t>(found == m_sums.end() ? 0 : found->second));
    }

private:
    std::string_view m_name; // of the table, which lives for ever
    std::map<std::string_view, double> m_sums;
};

} // namespace

std::string status_line(const services& gateway)
{
    picked_figures figures;
    collect(gateway, figures);
    std::string line = figures.text_of("rtls_gateway_bridges") + " bridges, " +
                       figures.text_of("rtls_gateway_nodes") + " nodes, " +
                       figures.text_of("rtls_gateway_reports_handed_over_total") + " messages handed over, " +
                       figures.text_of("rtls_gateway_reports_lost_total") + " lost";
    const char* separator = "; ";
    for (const auto& [name, state] : win_server_links(*gateway.win_server)) {
        line.append(separator).append(name).append(state.is_up ? " up" : " down");
        separator = ", ";
    }
    return line;
}

} // namespace rtls
