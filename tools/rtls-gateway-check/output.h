// output - findings, keys and effective configurations as people read them, and as JSON.
//
// Ownership  Values.
// Threads    Pure.
// Failures   Throws std::bad_alloc. Bytes that are no text are made visible: a file must not steer a terminal.
#pragma once

#include "base/config_keys.h"
#include "rtls-gateway-check/finding.h"
#include "rtls-gateway-check/key_reading.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

namespace rtls::check {

// One line a finding, and one for the remedy: "<file>:<line>: <level>: <key>: <text>". The last line counts them.
std::string findings_text(std::string_view file, const findings& found);
nlohmann::json findings_json(std::string_view file, const findings& found);

// All that holds, as a configuration file: behind each value, where it comes from.
std::string effective_text(const effective_configuration& effective);
nlohmann::json effective_json(const effective_configuration& effective);

// What is to be known about a key.
std::string key_text(const config_key& key);
nlohmann::json key_json(const config_key& key);
// All keys, a line each.
std::string keys_text();
nlohmann::json keys_json();

} // namespace rtls::check
