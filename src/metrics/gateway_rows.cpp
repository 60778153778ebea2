// The gateway itself: its nodes, its operators, its log; its actors, and the process.
#include "metrics/rows.h"

#include "version.h"

#include <algorithm>

namespace rtls {

static constexpr char of_win[] = "win";
static constexpr char of_terminal[] = "terminal";

static constexpr names_of<http_refusal> http_refusal_names = {
    "descriptors", "full", "busy", "malformed", "method", "too_long", "token", "timed_out", "out_of_memory"};

template <typename Read>
static void each_pulse(reading& r, Read read)
{
    if (const WIN_SERVER_t* win = r.win_server())
        read(of_win, win->pulse);
    if (r.terminal())
        read(of_terminal, r.terminal()->counts.pulse);
}

static constexpr metric_row inside_rows_table[] = {
    // Nodes
    {{"rtls_gateway_nodes", "Nodes in the registry.", "", gauge, {"state"}},
     [](reading& r) {
         if (!r.nodes())
             return;
         r.sample("living", number(r.nodes()->living));
         r.sample("expired", number(r.nodes()->all - r.nodes()->living));
     }},

    // The HTTP port
    {{"rtls_gateway_http_refused_total",
      "Connections and requests that the HTTP port refused.",
      "",
      counter_type,
      {"reason"}},
     [](reading& r) { by_name(r, http_refusal_names, r.http().counts()); }},

    // Operators and the debug stream
    {{"rtls_gateway_operators", "Operators who are connected.", "", gauge, {}},
     [](reading& r) {
         if (!r.terminal())
             return;
         const uint64_t gone = r.terminal()->counts.operators_gone.value(); // first: never more than came
         r.sample(number(r.terminal()->counts.operators_accepted.value() - gone));
     }},
    {{"rtls_gateway_operators_accepted_total",
      "Connections of operators that were accepted.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.terminal())
             r.sample(number(r.terminal()->counts.operators_accepted.value()));
     }},
    {{"rtls_gateway_operators_refused_total",
      "Connections of operators that were refused.",
      "",
      counter_type,
      {"reason"}},
     [](reading& r) {
         if (!r.terminal())
             return;
         sample_refusals(r, r.terminal()->entrance, r.terminal()->house);
         r.sample("out_of_memory", number(r.terminal()->counts.operators_not_made.value()));
     }},
    {{"rtls_gateway_operator_events_total", "Events of the terminal port.", "", counter_type, {}},
     [](reading& r) {
         if (r.terminal())
             r.sample(number(r.terminal()->counts.chunks.value()));
     }},
    {{"rtls_gateway_operator_bytes_total", "Bytes from operators.", "bytes", counter_type, {}},
     [](reading& r) {
         if (r.terminal())
             r.sample(number(r.terminal()->counts.bytes_in.value()));
     }},
    {{"rtls_gateway_debug_lines_total",
      "Lines that the debug stream brought to the terminal server.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.terminal())
             r.sample(number(r.terminal()->counts.lines_taken.value()));
     }},
    {{"rtls_gateway_debug_lines_delivered_total",
      "The same, for each operator who has subscribed.",
      "",
      counter_type,
      {"outcome"}},
     [](reading& r) {
         if (!r.terminal())
             return;
         r.sample("streamed", number(r.terminal()->counts.lines[line_outcome::streamed].value()));
         r.sample("filtered", number(r.terminal()->counts.lines[line_outcome::filtered].value()));
     }},
    {{"rtls_gateway_debug_lines_lost_total", "Debug lines that were lost.", "", counter_type, {"cause"}},
     [](reading& r) {
         r.sample("overflow", number(dbg_lines_lost()));
         r.sample("error", number(dbg_lines_failed()));
         r.sample("left_out", number(dbg_lines_held()));
         if (r.terminal())
             r.sample("operator", number(r.terminal()->counts.lines[line_outcome::lost].value()));
     }},

    // The log
    {{"rtls_gateway_log_lines_queued_total", "Lines taken in for the system log.", "", counter_type, {}},
     [](reading& r) { r.sample(number(r.log().queued)); }},
    {{"rtls_gateway_log_lines_written_total",
      "Of these, those that the system log took.",
      "",
      counter_type,
      {}},
     [](reading& r) { r.sample(number(r.log().written)); }},
    {{"rtls_gateway_log_lines_lost_total",
      "Lines that the system log did not get.",
      "",
      counter_type,
      {"cause"}},
     [](reading& r) {
         r.sample("overflow", number(r.log().lost));
         r.sample("held_back", number(r.log().held_back));
         r.sample("out_of_memory", number(r.log().unstored));
     }},
    {{"rtls_gateway_log_records_unpublished_total",
      "Records that the debug broker did not get.",
      "",
      counter_type,
      {}},
     [](reading& r) { r.sample(number(r.log().unpublished)); }},
};

metric_rows inside_rows() noexcept
{
    return inside_rows_table;
}

static constexpr metric_row process_rows_table[] = {
    // The actors
    {{"rtls_gateway_loop_age_seconds",
      "How long ago the loop of an actor has shown that it turns.",
      "seconds",
      gauge,
      {"actor"}},
     [](reading& r) {
         each_pulse(r, [&](const char* name, const loop_pulse& pulse) {
             const int64_t last = pulse.last_ms();
             if (last != loop_pulse::none)
                 r.sample(name, static_cast<double>(std::max<int64_t>(r.now_ms() - last, 0)) / 1e3);
         });
     }},
    {{"rtls_gateway_timer_lateness_seconds",
      "How late the periodic timer of an actor's loop ran.",
      "seconds",
      histogram,
      {"actor"}},
     [](reading& r) {
         each_pulse(r,
                    [&](const char* name, const loop_pulse& pulse) { r.times(name, {&pulse.lateness()}); });
     }},

    // The process; these names are every Prometheus client's
    {{"process_open_fds", "Descriptors that are open.", "", gauge, {}},
     [](reading& r) {
         if (r.process().open_descriptors)
             r.sample(number(*r.process().open_descriptors));
     }},
    {{"process_max_fds", "Descriptors that may be open.", "", gauge, {}},
     [](reading& r) { r.sample(number(r.process().most_descriptors)); }},
    {{"process_resident_memory_bytes", "Memory that is resident.", "bytes", gauge, {}},
     [](reading& r) { r.sample(number(r.process().resident_bytes)); }},
    {{"process_virtual_memory_bytes", "Memory that is mapped.", "bytes", gauge, {}},
     [](reading& r) { r.sample(number(r.process().virtual_bytes)); }},
    {{"process_cpu_seconds_total",
      "Processor time of all threads, in user and in kernel.",
      "seconds",
      counter_type,
      {}},
     [](reading& r) { r.sample(r.process().processor_seconds); }},
    {{"process_start_time_seconds", "When the process has started, since the epoch.", "seconds", gauge, {}},
     [](reading& r) { r.sample(r.process().start_seconds); }},
    {{"rtls_gateway_build_info", "The version that runs.", "", gauge, {"version"}},
     [](reading& r) { r.sample(rtls_gateway_version, 1); }},
};

metric_rows process_rows() noexcept
{
    return process_rows_table;
}

} // namespace rtls
