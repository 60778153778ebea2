// json - decoded messages as JSON, and back.
//
// One flat object: "direction", "kind", then the fields in the order of the bytes. What was not valid has the kind
// "invalid", "reason" and "bytes".
// Ownership  Values.
// Threads    Any: pure functions. Nothing waits.
// Bytes      UTF-8; texts of decoded messages are ASCII.
// Failures   JSON that is no message is a message that is not valid, without bytes. Of memory: std::bad_alloc.
#pragma once

#include "decode/decode.h"

#include <nlohmann/json_fwd.hpp> // who looks into an object includes json.hpp

#include <string>
#include <string_view>

namespace rtls::decode {

nlohmann::ordered_json to_json(const decoded& message);
decoded from_json(const nlohmann::ordered_json& object);

// The same on one line, without its end.
std::string to_json_text(const decoded& message);
decoded from_json_text(std::string_view text);

} // namespace rtls::decode
