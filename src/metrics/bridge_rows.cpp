// The bridges: what comes in from them, their connections, and what goes down to them.
#include "metrics/rows.h"

namespace rtls {

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
static constexpr names_of<bridge_message_loss> bridge_message_loss_names = {"queue_full", "out_of_memory",
                                                                            "given_up", "bridge_closed"};
static constexpr names_of<bridge_end> bridge_end_names = {"peer", "unwanted"};

static constexpr metric_row bridge_input_rows_table[] = {
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
};

metric_rows bridge_input_rows() noexcept
{
    return bridge_input_rows_table;
}

static constexpr metric_row bridge_rows_table[] = {
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
         sample_refusals(r, r.win_server()->win_door, r.win_server()->house);
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
};

metric_rows bridge_rows() noexcept
{
    return bridge_rows_table;
}

} // namespace rtls
