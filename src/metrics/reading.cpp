#include "metrics/reading.h"

#include "base/logger.h"

#include <array>

namespace rtls {

static bridge_load read_bridges(client_table& clients)
{
    bridge_load load;
    clients.visit_in_slices([&](const WIN_CLIENT_t& client) {
        const uint64_t messages = client.unsent_messages.size();
        const uint64_t bytes = client.unsent_messages.bytes();
        ++load.bridges;
        load.messages += messages;
        load.bytes += bytes;
        if (bytes > load.worst_bytes) {
            load.worst_bytes = bytes;
            load.worst_messages = messages;
        }
    });
    return load;
}

static node_load read_nodes(NODES_CONTAINER_t& nodes)
{
    const nodes_guard guard{nodes};
    return {nodes.living(), nodes.size()};
}

reading::reading(const services& gateway, metric_sink& sink)
    : m_sink(sink), m_win(gateway.win_server), m_ota(gateway.ota), m_process(read_process_figures()),
      m_log(logger_get_counters(g_logger_ctx)), m_http(gateway.http), m_now_ms(zclock_mono())
{
    if (gateway.terminal_server)
        m_terminal.emplace(terminal_server_figures(*gateway.terminal_server));
    if (m_win)
        m_bridges = read_bridges(m_win->clients);
    if (gateway.nodes)
        m_nodes = read_nodes(*gateway.nodes);
    if (gateway.downloads)
        m_downloads = gateway.downloads->current_load();
}

void reading::of(const metric& which) noexcept
{
    m_metric = &which;
    m_is_announced = false;
}

// A metric comes with its first sample.
void reading::announce()
{
    if (!m_is_announced)
        m_sink.begin(*m_metric);
    m_is_announced = true;
}

void reading::sample(double value)
{
    announce();
    m_sink.sample({}, value);
}

void reading::sample(const char* label_value, double value)
{
    announce();
    const label of{m_metric->labels[0], label_value};
    m_sink.sample({&of, 1}, value);
}

void reading::sample(const char* first, const char* second, double value)
{
    announce();
    const std::array of{label{m_metric->labels[0], first}, label{m_metric->labels[1], second}};
    m_sink.sample(of, value);
}

static constexpr auto bounds_in_seconds = [] {
    std::array<double, time_counts::bounds_us.size()> seconds{};
    for (size_t i = 0; i < seconds.size(); ++i)
        seconds[i] = static_cast<double>(time_counts::bounds_us[i]) / 1e6;
    return seconds;
}();

void reading::times(const char* label_value, std::initializer_list<const time_counts*> parts)
{
    announce();
    std::array<uint64_t, time_counts::ranges> buckets{};
    uint64_t below = 0;
    uint64_t sum_us = 0;
    for (size_t range = 0; range < buckets.size(); ++range) {
        for (const time_counts* part : parts)
            below += part->in_range(range);
        buckets[range] = below;
    }
    for (const time_counts* part : parts)
        sum_us += part->sum_us();
    const label of{m_metric->labels[0], label_value};
    m_sink.times({&of, label_value ? size_t{1} : size_t{0}},
                 {bounds_in_seconds, buckets, static_cast<double>(sum_us) / 1e6});
}

} // namespace rtls
