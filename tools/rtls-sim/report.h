// report - what the gateway hands to the servers, taken apart and put into words.
//
// Threads    Any; nothing is kept.
// Failures   What is not well-formed is not valid, and can still be described.
#pragma once

#include "rtls-sim/uplink.h"

#include <optional>
#include <string>

namespace sim {

struct report_time {
    uint32_t seconds = 0;
    uint16_t milliseconds = 0;
};

struct upstream_report {
    bool valid = false; // well-formed, as far as this reader knows the form
    std::optional<sim::kind> kind;
    mac_bytes from{}; // of management lines, the reporter's six bytes
    uint8_t seq = 0;
    report_time time;
    std::optional<report_stamp> stamp;
    std::optional<ota_page_id> page; // an OTA page that the gateway could not serve itself
    std::string content;             // what identifies it, as uplink_message::content
};

// A message to the message handler: a time frame of six bytes, and the report.
upstream_report read_handler_message(view time, view data);
// A text to the proxy input: "@win_management {"ts":<seconds>,"ms":<milliseconds>,<content>}".
upstream_report read_management_line(std::string_view line);
// Either of them as one line for people; the content only, without its time.
std::string describe(const upstream_report& report);

} // namespace sim
