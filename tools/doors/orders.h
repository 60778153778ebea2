// orders - what a gateway is told to do, all of it by its terminal.
//
// Threads    One at a time for each gateway.
// Blocking   For answers, as long as the gateway's time-out.
// Failures   Thrown, see failure.h: what the terminal does not confirm is refused, in its own words.
#pragma once

#include "doors/gateway.h"

#include <string>
#include <string_view>

namespace ctl {

// The node with this MAC (digits, see macs.h). The terminal takes its last four digits, and of several nodes with
// the same ones any: then nothing is done. The whole MAC is returned.
std::string reboot_node(gateway& g, const std::string& digits);
std::string delete_node(gateway& g, const std::string& digits);

// Has the gateway download an image; its slot.
int fetch_image(gateway& g, const std::string& url);

// Has a node run what it has fetched. The terminal takes the digits from its own word "apply": it is always node
// 000A that is told, and no other is let through here.
std::string apply_firmware(gateway& g, const std::string& digits);

// Switches a section of the debug stream, for everybody. Which are on then: {"raw": false, ...}.
json switch_section(gateway& g, const std::string& section, bool on);
json sections_of(gateway& g);

// Makes the terminal's session a subscriber of the debug stream, which is read from it then. `pattern`: what lines
// must contain, or empty; see follow.h for which ones the terminal may be given.
void subscribe(gateway& g, const std::string& pattern);

} // namespace ctl
