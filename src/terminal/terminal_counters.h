// terminal_counters - what the terminal server's thread counts: operators, and the lines that they get.
//
// Threads    The terminal's writes; any reads (base/counter.h).
#pragma once

#include "base/counter.h"
#include "base/loop_pulse.h"

#include <cstdint>

namespace rtls {

// A line of the debug stream, for one operator who has subscribed.
enum class line_outcome : uint8_t { streamed, filtered, lost, kinds };

struct terminal_counters {
    counter operators_accepted;
    counter operators_not_made; // for lack of memory
    counter operators_gone;
    counter chunks; // received: connects, commands, ends
    counter bytes_in;
    counter lines_taken; // out of the debug stream
    counters<line_outcome> lines;
    counter requests_lost; // commands for nodes that the WIN server did not take
    loop_pulse pulse;
};

} // namespace rtls
