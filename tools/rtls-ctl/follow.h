// follow - the debug stream of several gateways, line by line, until somebody ends it.
//
// Threads    The main thread.
// Blocking   `follow` until it is ended. SIGINT, SIGTERM and SIGHUP end it in order, and are blocked from its begin on.
// Failures   Of one gateway: told at once, and the others are followed on. Told by the status in the end.
#pragma once

#include "doors/failure.h"
#include "doors/gateway.h"
#include "rtls-ctl/screen.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

// One line of the stream; a message's further lines have a text alone.
struct debug_line {
    std::string time;    // "11-22 10:20:30.123", UTC; empty on further lines
    std::string channel; // "SLIP"
    std::string text;
};

debug_line read_debug_line(std::string_view line);

// Cuts the stream into lines, however it arrives. The gateway cuts a line at 2047 bytes, its end included.
class line_cutter {
public:
    void add(std::string_view bytes) { m_bytes += bytes; }
    std::optional<std::string> next();

private:
    std::string m_bytes;
};

// Whether lines that contain the pattern can be chosen by the gateway, too: it looks at the line with its colours,
// takes a pattern without blanks alone, and has rules of its own for the others. Then less comes over the line.
bool is_plain(const std::string& pattern);

struct follow_options {
    std::vector<std::string> sections; // to switch on before; they stay on
    std::string pattern;               // POSIX extended, of what a line must contain; empty: all lines
    bool as_json = false;
    screen out;
};
exit_status follow(std::vector<gateway>& gateways, const follow_options& options);

} // namespace ctl
