// The table of all figures. Whoever adds a row explains it in docs/metrics.md, too.
#include "metrics/metrics.h"

#include "firmware/image_download.h"
#include "metrics/reading.h"
#include "version.h"

#include <algorithm>
#include <array>

namespace rtls {

// --- the values of the labels

template <typename Kind>
using names_of = std::array<const char*, static_cast<size_t>(Kind::kinds)>;

static constexpr names_of<bridge_event> event_names = {"connected", "data", "disconnected", "data_of_nobody",
                                                       "late_end"};
static constexpr names_of<frame_loss> frame_loss_names = {"restarted",     "empty",    "too_long",
                                                          "out_of_memory", "given_up", "unfinished"};
static constexpr names_of<message_type> message_type_names = {
    "none",      "ping",          "panid_req",          "announce_root",
    "heartbeat", "node_announce", "generic_server_req", "sensor",
    "wrap_ts",   "nwk_data_ind",  "trf2srv_via_client", "other"};
static constexpr names_of<message_outcome> message_outcome_names = {
    "report",       "line",      "answered",      "unknown_type", "too_short",    "wrong_size",
    "unknown_node", "duplicate", "registry_full", "foreign_node", "out_of_memory"};
static constexpr names_of<upstream_loss> upstream_loss_names = {"overflow", "waited_in_vain", "error",
                                                                "out_of_memory"};
static constexpr names_of<bridge_message_loss> bridge_message_loss_names = {"queue_full", "out_of_memory",
                                                                            "given_up", "bridge_closed"};
static constexpr names_of<bridge_end> bridge_end_names = {"peer", "unwanted"};
static constexpr names_of<command_type> command_type_names = {
    "undecodable",        "ota_upload_fw",       "nwk_data_req", "conf_node_req",
    "fw_image_avail_ind", "generic_req",         "rest_ack",     "sensor_req",
    "conf_sensor_req",    "tdoa_sched_conf_req", "other",        "of_operator"};
static constexpr names_of<command_outcome> command_outcome_names = {
    "sent",   "cached",    "lost",         "no_bridge", "node_not_found",
    "repeat", "malformed", "unknown_type", "ordered",   "out_of_memory"};
static constexpr names_of<page_request_outcome> page_request_names = {"served", "not_found", "refused"};
static constexpr names_of<page_seen_outcome> page_seen_names = {"stored", "refused"};
static constexpr names_of<discovery_outcome> discovery_names = {"answered", "malformed", "own", "flood"};
static constexpr names_of<transfer_outcome> transfer_names = {"complete", "failed", "timed_out", "stopped",
                                                              "forbidden"};
static constexpr names_of<link_failure> link_failure_names = {"broken_off", "other_protocol", "refused",
                                                              "other_socket", "lost"};
static constexpr std::array<const char*, door_refusals> door_names = {"network", "full", "address"};

static constexpr char of_handler[] = "message_handler";
static constexpr char of_proxy_input[] = "proxy_input";
static constexpr char of_proxy[] = "proxy";
static constexpr char of_broker[] = "debug_broker";
static constexpr char of_win[] = "win";
static constexpr char of_terminal[] = "terminal";

// --- reading, by the shape of what is read

static double number(uint64_t value)
{
    return static_cast<double>(value);
}

template <size_t Size, typename Counters>
static void by_name(reading& r, const std::array<const char*, Size>& names, const Counters& counted)
{
    for (size_t i = 0; i < Size; ++i)
        r.sample(names[i], number(counted.value(i)));
}

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
    const tav_link_state_t broker = logger_get_broker_state(g_logger_ctx);
    link_state state{
        broker.is_up, broker.since_ms, broker.connections, broker.failures, broker.last_reason, 0, {}};
    std::ranges::copy(broker.failures_of, state.failures_of.begin());
    read(of_broker, state);
}

template <typename Read>
static void each_pulse(reading& r, Read read)
{
    if (const WIN_SERVER_t* win = r.win_server())
        read(of_win, win->pulse);
    if (r.terminal())
        read(of_terminal, r.terminal()->counts.pulse);
}

// Those of operators begin at the terminal, and may be lost on their way to the WIN server.
static uint64_t commands(const reading& r, size_t type, size_t outcome)
{
    const bool may_be_lost_before = type == static_cast<size_t>(command_type::of_operator) &&
                                    outcome == static_cast<size_t>(command_outcome::lost);
    const uint64_t before =
        may_be_lost_before && r.terminal() ? r.terminal()->counts.requests_lost.value() : 0;
    return r.win()->commands[type].value(outcome) + before;
}

static void refusals(reading& r, const door& entrance, const full_house& house)
{
    for (size_t i = 0; i < door_refusals; ++i)
        r.sample(door_names[i], number(entrance.refused(static_cast<door_refusal>(i))));
    r.sample("descriptors", number(house.refused()));
}

// --- the table

namespace {

struct row {
    metric what;
    void (*read)(reading& r);
};

constexpr auto counter_type = metric_type::counter;
constexpr auto gauge = metric_type::gauge;
constexpr auto histogram = metric_type::histogram;

} // namespace

static constexpr row rows[] = {
    // Bridges: what comes in
    {{"rtls_gateway_bridge_events_total", "Events of the WIN port.", "", counter_type, {"event"}},
     [](reading& r) {
         if (r.win())
             by_name(r, event_names, r.win()->events);
     }},
    {{"rtls_gateway_bridge_bytes_total", "Bytes from and to bridges.", "bytes", counter_type, {"direction"}},
     [](reading& r) {
         if (!r.win())
             return;
         r.sample("in", number(r.win()->bytes_in.value()));
         r.sample("out", number(r.win()->bytes_out.value()));
     }},
    {{"rtls_gateway_bridge_frames_total",
      "Whole frames from and to bridges.",
      "",
      counter_type,
      {"direction"}},
     [](reading& r) {
         if (!r.win())
             return;
         r.sample("in", number(r.win()->frames_in.value()));
         r.sample("out",
                  number(r.win()->bridge_messages_sent.value() + r.win()->bridge_messages_flushed.value()));
     }},
    {{"rtls_gateway_bridge_noise_bytes_total",
      "Bytes from bridges outside of any frame.",
      "bytes",
      counter_type,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win()->decoder.noise.value()));
     }},
    {{"rtls_gateway_bridge_frames_lost_total",
      "Frames from bridges that never became messages.",
      "",
      counter_type,
      {"reason"}},
     [](reading& r) {
         if (r.win())
             by_name(r, frame_loss_names, r.win()->decoder.lost);
     }},
    {{"rtls_gateway_messages_total", "Messages from bridges.", "", counter_type, {"type"}},
     [](reading& r) {
         for (size_t type = 0; r.win() && type < message_type_names.size(); ++type)
             r.sample(message_type_names[type], number(r.win()->messages[type].sum()));
     }},
    {{"rtls_gateway_message_outcomes_total",
      "What became of the messages from bridges; each ends in one.",
      "",
      counter_type,
      {"outcome"}},
     [](reading& r) {
         for (size_t outcome = 0; r.win() && outcome < message_outcome_names.size(); ++outcome) {
             uint64_t all = 0;
             for (const auto& of_type : r.win()->messages)
                 all += of_type.value(outcome);
             r.sample(message_outcome_names[outcome], number(all));
         }
     }},
    {{"rtls_gateway_acknowledgements_total",
      "Acknowledgements that bridges were sent.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win()->acknowledgements.value()));
     }},

    // Reports and management lines
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

    // Bridges: connections, and what goes down
    {{"rtls_gateway_bridges", "Bridges that are connected.", "", gauge, {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.bridges().bridges));
     }},
    {{"rtls_gateway_bridges_accepted_total",
      "Connections of bridges that were accepted.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win()->bridges_accepted.value()));
     }},
    {{"rtls_gateway_bridges_refused_total",
      "Connections of bridges that were refused.",
      "",
      counter_type,
      {"reason"}},
     [](reading& r) {
         if (!r.win())
             return;
         refusals(r, r.win_server()->win_door, r.win_server()->house);
         r.sample("out_of_memory", number(r.win()->bridges_not_made.value()));
     }},
    {{"rtls_gateway_bridges_closed_total",
      "Connections of bridges that ended, by who closed them.",
      "",
      counter_type,
      {"cause"}},
     [](reading& r) {
         if (r.win())
             by_name(r, bridge_end_names, r.win()->bridges_closed);
     }},
    {{"rtls_gateway_bridge_messages_sent_total",
      "Messages that a bridge's connection took at once.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win()->bridge_messages_sent.value()));
     }},
    {{"rtls_gateway_bridge_messages_cached_total",
      "Messages that had to wait for a bridge.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win()->bridge_messages_cached.value()));
     }},
    {{"rtls_gateway_bridge_messages_flushed_total",
      "Of these, those that its connection took later.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win()->bridge_messages_flushed.value()));
     }},
    {{"rtls_gateway_bridge_messages_lost_total", "Messages that no bridge got.", "", counter_type, {"cause"}},
     [](reading& r) {
         if (r.win())
             by_name(r, bridge_message_loss_names, r.win()->bridge_messages_lost);
     }},
    {{"rtls_gateway_bridges_waiting_messages", "Messages that wait for all bridges.", "", gauge, {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.bridges().messages));
     }},
    {{"rtls_gateway_bridges_waiting_bytes", "Bytes of these.", "bytes", gauge, {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.bridges().bytes));
     }},
    {{"rtls_gateway_worst_bridge_waiting_messages",
      "Messages that wait for the bridge with most bytes waiting.",
      "",
      gauge,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.bridges().worst_messages));
     }},
    {{"rtls_gateway_worst_bridge_waiting_bytes", "Bytes of these.", "bytes", gauge, {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.bridges().worst_bytes));
     }},
    {{"rtls_gateway_bridges_waiting_memory_bytes",
      "Memory that messages take which wait for bridges.",
      "bytes",
      gauge,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win_server()->unsent_total.bytes()));
     }},
    {{"rtls_gateway_bridges_unfinished_memory_bytes",
      "Memory that bridges' frames at hand take.",
      "bytes",
      gauge,
      {}},
     [](reading& r) {
         if (r.win())
             r.sample(number(r.win_server()->unfinished_total.bytes()));
     }},

    // Commands, pages, discovery
    {{"rtls_gateway_commands_total",
      "Commands of servers and operators; each ends in one outcome.",
      "",
      counter_type,
      {"type", "outcome"}},
     [](reading& r) {
         for (size_t type = 0; r.win() && type < command_type_names.size(); ++type)
             for (size_t outcome = 0; outcome < command_outcome_names.size(); ++outcome)
                 r.sample(command_type_names[type], command_outcome_names[outcome],
                          number(commands(r, type, outcome)));
     }},
    {{"rtls_gateway_page_requests_total",
      "Nodes' requests for pages of firmware.",
      "",
      counter_type,
      {"outcome"}},
     [](reading& r) {
         if (r.win())
             by_name(r, page_request_names, r.win()->page_requests);
     }},
    {{"rtls_gateway_pages_intercepted_total",
      "Pages of firmware that servers sent by.",
      "",
      counter_type,
      {"outcome"}},
     [](reading& r) {
         if (r.win())
             by_name(r, page_seen_names, r.win()->pages_seen);
     }},
    {{"rtls_gateway_discovery_requests_total",
      "Datagrams of the discovery port.",
      "",
      counter_type,
      {"outcome"}},
     [](reading& r) {
         if (r.win())
             by_name(r, discovery_names, r.win()->discovery);
     }},

    // Downloads
    {{"rtls_gateway_downloads_total",
      "Firmware images that were to be fetched.",
      "",
      counter_type,
      {"outcome"}},
     [](reading& r) {
         const auto& transfers = image_download_counters().transfers;
         for (size_t i = 0; i < transfer_names.size(); ++i)
             r.sample(transfer_names[i], number(transfers[i].value()));
         if (!r.downloads())
             return;
         r.sample("queue_full", number(r.downloads()->refused));
         r.sample("not_taken", number(r.downloads()->not_taken));
     }},
    {{"rtls_gateway_firmware_images_refused_total",
      "Images that no server ordered, and that found no room beside those that one did.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (r.ota())
             r.sample(number(r.ota()->refused_for_ordered()));
     }},
    {{"rtls_gateway_download_bytes_total",
      "Bytes of firmware images that were received.",
      "bytes",
      counter_type,
      {}},
     [](reading& r) { r.sample(number(image_download_counters().bytes.value())); }},
    {{"rtls_gateway_download_seconds_total",
      "Time that fetching firmware images took.",
      "seconds",
      counter_type,
      {}},
     [](reading& r) { r.sample(number(image_download_counters().microseconds.value()) / 1e6); }},
    {{"rtls_gateway_downloads_running", "Orders for firmware images that are carried out.", "", gauge, {}},
     [](reading& r) {
         if (r.downloads())
             r.sample(number(r.downloads()->running));
     }},
    {{"rtls_gateway_downloads_waiting", "Orders for firmware images that wait.", "", gauge, {}},
     [](reading& r) {
         if (r.downloads())
             r.sample(number(r.downloads()->waiting));
     }},

    // Nodes
    {{"rtls_gateway_nodes", "Nodes in the registry.", "", gauge, {"state"}},
     [](reading& r) {
         if (!r.nodes())
             return;
         r.sample("living", number(r.nodes()->living));
         r.sample("expired", number(r.nodes()->all - r.nodes()->living));
     }},

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
         if (r.terminal())
             refusals(r, r.terminal()->entrance, r.terminal()->house);
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

    // Links to the servers
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

static constexpr auto metrics_of_rows = [] {
    std::array<metric, std::size(rows)> all{};
    std::ranges::transform(rows, all.begin(), &row::what);
    return all;
}();

std::span<const metric> all_metrics() noexcept
{
    return metrics_of_rows;
}

void collect(const services& gateway, metric_sink& sink)
{
    reading now{gateway, sink};
    for (size_t i = 0; i < std::size(rows); ++i) {
        now.of(metrics_of_rows[i]);
        rows[i].read(now);
    }
}

} // namespace rtls
