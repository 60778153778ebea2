// The tap: what its subscribers get, and miss. Without a tap there are no samples.
#include "metrics/rows.h"

namespace rtls {

static constexpr names_of<tap_class> class_names = {"report",  "management", "command",
                                                    "link_in", "link_out",   "event"};

// The tap's counters, or nullptr.
static const tap_counters* tap_of(reading& r)
{
    const WIN_SERVER_t* win = r.win_server();
    return win && win->tap.is_configured() ? &win->tap.counts() : nullptr;
}

static constexpr metric_row tap_rows_table[] = {
    {{"rtls_gateway_tap_messages_total", "Messages that the tap published.", "", counter_type, {"class"}},
     [](reading& r) {
         if (const tap_counters* tap = tap_of(r))
             by_name(r, class_names, tap->published);
     }},
    {{"rtls_gateway_tap_overflows_total",
      "Messages with which a subscriber that does not read began to lose some.",
      "",
      counter_type,
      {"class"}},
     [](reading& r) {
         if (const tap_counters* tap = tap_of(r))
             by_name(r, class_names, tap->overflows);
     }},
    {{"rtls_gateway_tap_lost_total",
      "Messages that no subscriber got, for want of memory.",
      "",
      counter_type,
      {"class"}},
     [](reading& r) {
         if (const tap_counters* tap = tap_of(r))
             by_name(r, class_names, tap->lost);
     }},
    {{"rtls_gateway_tap_refused_total",
      "Connections to the tap with another key than the subscribers'.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (const tap_counters* tap = tap_of(r))
             r.sample(number(tap->refused.value()));
     }},
    {{"rtls_gateway_tap_cut_total",
      "Connections to the tap that sent more than topics within bounds, and were cut off.",
      "",
      counter_type,
      {}},
     [](reading& r) {
         if (const tap_counters* tap = tap_of(r))
             r.sample(number(tap->cut.value()));
     }},
    {{"rtls_gateway_tap_topics", "Topics of the tap that are subscribed to.", "", gauge, {}},
     [](reading& r) {
         if (const tap_counters* tap = tap_of(r))
             r.sample(number(tap->topics.value()));
     }},
};

metric_rows tap_rows() noexcept
{
    return tap_rows_table;
}

} // namespace rtls
