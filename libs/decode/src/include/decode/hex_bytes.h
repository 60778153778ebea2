// hex_bytes - bytes as lower-case hex, the way of MACs in the gateway's own texts, and back.
//
// Ownership  Values.
// Threads    Any: pure functions. Nothing waits.
// Failures   Text that is no hex is nothing; std::bad_alloc.
#pragma once

#include "base/bytes.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::decode {

std::string hex_of(bytes_view bytes);
// Digits of either case, two a byte; colons between bytes are skipped.
std::optional<std::vector<uint8_t>> bytes_of_hex(std::string_view text);

} // namespace rtls::decode
