// hex - bytes as hexadecimal text, table-driven.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace rtls {

// Upper-case hex, two digits a byte, no separators.
std::string to_hex(std::span<const uint8_t> bytes);

// Writes 2 * bytes.size() upper-case digits to `out`, unterminated, and returns the position after them.
char* write_hex(std::span<const uint8_t> bytes, char* out);

} // namespace rtls
