// reading - one look at all figures: what several metrics need is taken once, and each sample is handed to the
// sink.
//
// Private to the metrics.
// Ownership  Borrows the gateway's services and the sink; lives as long as one collect().
// Threads    That of collect(); see metrics.h.
#pragma once

#include "core/clogger.h"
#include "link/win_server_private.h"
#include "metrics/metrics.h"
#include "metrics/process_figures.h"
#include "services.h"
#include "terminal/terminal_server.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>

namespace rtls {

// What waits for the bridges.
struct bridge_load {
    uint64_t bridges = 0;
    uint64_t messages = 0;
    uint64_t bytes = 0;
    uint64_t worst_messages = 0; // of the bridge for which most wait
    uint64_t worst_bytes = 0;    // the same
};

struct node_load {
    uint64_t living = 0;
    uint64_t all = 0;
};

class reading {
public:
    reading(const services& gateway, metric_sink& sink);

    // What is read; null or nothing where it is not there.
    const win_counters* win() const { return m_win ? &m_win->counts : nullptr; }
    WIN_SERVER_t* win_server() const { return m_win; }
    const std::optional<terminal_figures>& terminal() const { return m_terminal; }
    const bridge_load& bridges() const { return m_bridges; }
    const std::optional<node_load>& nodes() const { return m_nodes; }
    const process_figures& process() const { return m_process; }
    const tav_log_counters& log() const { return m_log; }
    const OTA_t* ota() const { return m_ota; }
    const std::optional<download_pool::load>& downloads() const { return m_downloads; }
    const http_refusals& http() const { return m_http; }
    int64_t now_ms() const { return m_now_ms; } // zclock_mono

    // The samples that follow are of this one.
    void of(const metric& which) noexcept;
    void sample(double value);
    void sample(const char* label_value, double value);
    void sample(const char* first, const char* second, double value);
    // One histogram of all that the parts have counted. Without a label: null.
    void times(const char* label_value, std::initializer_list<const time_counts*> parts);

private:
    void announce();

    metric_sink& m_sink;
    const metric* m_metric = nullptr;
    bool m_is_announced = false;
    WIN_SERVER_t* m_win;
    const OTA_t* m_ota;
    std::optional<terminal_figures> m_terminal;
    bridge_load m_bridges;
    std::optional<node_load> m_nodes;
    process_figures m_process;
    tav_log_counters m_log;
    const http_refusals& m_http;
    std::optional<download_pool::load> m_downloads;
    int64_t m_now_ms;
};

} // namespace rtls
