// Commands of servers and operators, pages and images of firmware, discovery.
#include "metrics/rows.h"

#include "firmware/image_download.h"

namespace rtls {

static constexpr names_of<command_type> command_type_names = {
    "undecodable",        "ota_upload_fw",       "nwk_data_req", "conf_node_req",
    "fw_image_avail_ind", "generic_req",         "rest_ack",     "sensor_req",
    "conf_sensor_req",    "tdoa_sched_conf_req", "other",        "of_operator"};
static constexpr names_of<command_outcome> command_outcome_names = {
    "sent",   "cached",    "lost",         "no_bridge", "node_not_found",
    "repeat", "malformed", "unknown_type", "ordered",   "out_of_memory"};
static constexpr names_of<page_request_outcome> page_request_names = {"served", "not_found", "refused"};
static constexpr names_of<page_seen_outcome> page_seen_names = {"stored", "refused"};
static constexpr names_of<discovery_outcome> discovery_names = {"answered", "not_sent", "malformed", "own",
                                                                "flood"};
static constexpr names_of<transfer_outcome> transfer_names = {"complete", "failed", "timed_out", "stopped",
                                                              "forbidden"};

// Those of operators begin at the terminal, and may be lost on their way to the WIN server.
static uint64_t commands(const reading& r, size_t type, size_t outcome)
{
    const bool may_be_lost_before = type == static_cast<size_t>(command_type::of_operator) &&
                                    outcome == static_cast<size_t>(command_outcome::lost);
    const uint64_t before =
        may_be_lost_before && r.terminal() ? r.terminal()->counts.requests_lost.value() : 0;
    return r.win()->commands[type].value(outcome) + before;
}

static constexpr metric_row command_rows_table[] = {
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
};

metric_rows command_rows() noexcept
{
    return command_rows_table;
}

} // namespace rtls
