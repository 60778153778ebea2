// texts - what is shown of texts that strangers have chosen.
//
// Devices and other operators choose some of the texts that a gateway tells, and must not move somebody's cursor, or
// clear his screen, with them.
// Ownership  Values.
// Threads    Any; pure.
// Bytes      UTF-8, whatever comes in.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>
#include <string_view>

namespace tools {

// Control characters (C0, C1 and DEL) and bytes that are no UTF-8 become \xNN.
std::string printable(std::string_view text);

// Characters of a text that is printable: what it takes on a screen.
size_t text_width(std::string_view text);

// Indented by `indent` blanks a level, or in one line (-1). Bytes that are no UTF-8 are replaced; control characters
// are escaped, those too that JSON leaves as they are.
std::string json_text(const nlohmann::json& value, int indent = -1);
std::string json_text(const nlohmann::ordered_json& value, int indent = -1);

} // namespace tools
