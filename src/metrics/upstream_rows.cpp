// The servers: what they are handed, and the links to them.
#include "metrics/rows.h"

#include <algorithm>

namespace rtls {

static constexpr names_of<upstream_loss> upstream_loss_names = {"overflow", "waited_in_vain", "error",
                                                                "out_of_memory"};
static constexpr names_of<link_failure> link_failure_names = {"broken_off", "other_protocol", "refused",
                                                              "other_socket", "lost"};

static constexpr char of_handler[] = "message_handler";
static constexpr char of_proxy_input[] = "proxy_input";
static constexpr char of_proxy[] = "proxy";
static constexpr char of_broker[] = "debug_broker";

static uint64_t handed_over(const upstream_counters& queue)
{
    uint64_t all = queue.at_once.value();
    for (size_t range = 0; range < time_counts::ranges; ++range)
        all += queue.after_wait.in_range(range);
    return all;
}

// Calls read(name, queue) for each queue to a server.
template <typename Read>
static void each_queue(reading& r, Read read)
{
    if (const WIN_SERVER_t* win = r.win_server()) {
        read(of_handler, win->to_handler.counts());
        read(of_proxy_input, win->to_proxy_input.counts());
    }
}

// Calls read(name, state) for each link to a server.
template <typename Read>
static void each_link(reading& r, Read read)
{
    if (const WIN_SERVER_t* win = r.win_server()) {
        read(of_handler, win->msg_handler_link.state());
        read(of_proxy, win->proxy_link.state());
        read(of_proxy_input, win->proxy_input_link.state());
    }
    const tav_link_state broker = logger_get_broker_state(g_logger_ctx);
    link_state state{
        broker.is_up, broker.since_ms, broker.connections, broker.failures, broker.last_reason, 0, {}};
    std::ranges::copy(broker.failures_of, state.failures_of.begin());
    read(of_broker, state);
}

static constexpr metric_row report_rows_table[] = {
    {{"rtls_gateway_reports_handed_over_total",
      "Reports and lines that the queue to a server took.",
      "",
      counter_type,
      {"queue"}},
     [](reading& r) {
         each_queue(r, [&](const char* name, const upstream_counters& queue) {
             r.sample(name, number(handed_over(queue)));
         });
     }},
    {{"rtls_gateway_reports_waited_total",
      "Of these, those that waited for room before.",
      "",
      counter_type,
      {"queue"}},
     [](reading& r) {
         each_queue(r, [&](const char* name, const upstream_counters& queue) {
             r.sample(name, number(handed_over(queue) - queue.at_once.value()));
         });
     }},
    {{"rtls_gateway_reports_waiting",
      "Reports and lines that wait for room in the queue to a server.",
      "",
      gauge,
      {"queue"}},
     [](reading& r) {
         each_queue(r, [&](const char* name, const upstream_counters& queue) {
             r.sample(name, number(queue.waiting.value()));
         });
     }},
    {{"rtls_gateway_reports_lost_total",
      "Reports and lines that no server got.",
      "",
      counter_type,
      {"queue", "cause"}},
     [](reading& r) {
         each_queue(r, [&](const char* name, const upstream_counters& queue) {
             for (size_t i = 0; i < upstream_loss_names.size(); ++i)
                 r.sample(name, upstream_loss_names[i], number(queue.lost.value(i)));
         });
         if (const WIN_SERVER_t* win = r.win_server()) { // those that had been handed over
             r.sample(of_handler, "dropped", number(win->msg_handler_link.state().lost));
             r.sample(of_proxy_input, "dropped", number(win->proxy_input_link.state().lost));
         }
     }},
    {{"rtls_gateway_report_hand_over_seconds",
      "From the look at a bridge's connection that found a report's last byte to its hand-over, at most.",
      "seconds",
      histogram,
      {}},
     [](reading& r) {
         if (const WIN_SERVER_t* win = r.win_server())
             r.times(nullptr, {&win->counts.hand_over, &win->to_handler.counts().after_wait,
                               &win->to_proxy_input.counts().after_wait});
     }},
};

metric_rows report_rows() noexcept
{
    return report_rows_table;
}

static constexpr metric_row link_rows_table[] = {
    {{"rtls_gateway_upstream_link_up",
      "Whether the link is connected, and its handshake done.",
      "",
      gauge,
      {"link"}},
     [](reading& r) {
         each_link(r, [&](const char* name, const link_state& link) { r.sample(name, link.is_up ? 1 : 0); });
     }},
    {{"rtls_gateway_upstream_link_since_timestamp_seconds",
      "Since when it is up, or down after it was up; 0: it was never up.",
      "seconds",
      gauge,
      {"link"}},
     [](reading& r) {
         each_link(r, [&](const char* name, const link_state& link) {
             r.sample(name, static_cast<double>(link.since_ms) / 1e3);
         });
     }},
    {{"rtls_gateway_upstream_link_connections_total",
      "Handshakes done; all but the first are reconnections.",
      "",
      counter_type,
      {"link"}},
     [](reading& r) {
         each_link(
             r, [&](const char* name, const link_state& link) { r.sample(name, number(link.connections)); });
     }},
    {{"rtls_gateway_upstream_link_failures_total",
      "Handshakes that failed, and connections lost.",
      "",
      counter_type,
      {"link", "reason"}},
     [](reading& r) {
         each_link(r, [&](const char* name, const link_state& link) {
             for (size_t i = 0; i < link_failure_names.size(); ++i)
                 r.sample(name, link_failure_names[i], number(link.failures_of[i]));
         });
     }},
};

metric_rows link_rows() noexcept
{
    return link_rows_table;
}

} // namespace rtls
