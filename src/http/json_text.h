// json_text - JSON as it leaves by this door: one line, whatever is in the texts. Bytes that are no UTF-8 are
// replaced by U+FFFD, for texts come from the network.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace rtls {

// Keys keep the order in which they are written.
using json = nlohmann::ordered_json;

inline std::string json_text(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

} // namespace rtls
