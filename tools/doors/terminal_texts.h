// terminal_texts - what a gateway's terminal answers: where an answer ends, and what it says.
//
// The terminal marks the end of its listings, but not that of other answers; and what arrives in one piece here
// may be half of one, or more than one. The rules below take the whole text so far.
// Ownership  Values.
// Threads    Any; pure.
// Failures   A text that is not what the terminal writes is a `failure` (refused).
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>
#include <string_view>

namespace ctl {

using nlohmann::json;

// --- Where an answer ends: the place behind it; npos while it is not whole.
using ending_rule = size_t (*)(std::string_view text);

size_t end_of_line(std::string_view text);          // the first line
size_t end_of_listing(std::string_view text);       // pn, pnf, pcl: "##"
size_t end_of_sections(std::string_view text);      // dbg: the last section, or a refusal
size_t end_of_versions(std::string_view text);      // info: an empty line
size_t end_of_filter_answer(std::string_view text); // grep: "GREP: ...", two lines when it is refused

// Behind an answer without an end of its own: the terminal answers in order, so that all that comes before this
// one's answer belongs to the former. It changes nothing.
inline constexpr char marking_command[] = "grep";

// --- What it says, with the names and values that the HTTP port has for it. What the terminal does not tell is
// null; of a parent it tells the last five digits.

// `pnf`: {"nodes": [...], "bridges": [...]}.
json parse_network(std::string_view listing);
// `pcl`: [...], without the connection that asks.
json parse_operators(std::string_view listing);
// `fw list`: the images, [...].
json parse_images(std::string_view listing);
// `dbg`: {"raw": false, ...}.
json parse_sections(std::string_view answer);
// `info`: the version of the gateway.
std::string parse_version(std::string_view answer);

} // namespace ctl
