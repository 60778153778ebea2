// macs - a node's MAC as operators write it.
//
// Threads    Any; pure.
// Failures   A text that is no MAC is a `failure` (usage).
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace ctl {

using nlohmann::json;

// "1A2B", "01a2b" and "02ab34cd5601a2b"-like texts as digits alone: the last 4 or 5 of a MAC, or all 16; colons do
// not count. The terminal would take any text that begins with a hex digit, and cut it silently.
std::string mac_digits(const std::string& text);

// Whether the node has a MAC that ends with these digits.
bool ends_with(const json& node, const std::string& digits);

// The last four digits: the terminal knows nodes by these.
std::string short_mac(const std::string& mac);

} // namespace ctl
