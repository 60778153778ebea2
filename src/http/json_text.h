// json_text - JSON as it leaves by this door: one line, whatever is in the texts.
//
// Ownership  Values; a text is the caller's.
// Threads    Any: pure.
// Bytes      UTF-8. What is none is replaced by U+FFFD, for texts come from the network.
// Failures   std::bad_alloc.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace rtls {

// Keys keep the order in which they are written.
using json = nlohmann::ordered_json;

// The value on a line of its own, its end included.
inline std::string json_text(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

} // namespace rtls
