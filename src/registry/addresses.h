// addresses - the sizes of what nodes are known by.
//
// Threads    Constants: any. Nothing fails.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace rtls {

constexpr size_t mac_size = 8;      // EUI-64, in the order in which it is written
constexpr size_t ip_addr_size = 16; // IPv6, network order

using mac_array = std::array<uint8_t, mac_size>;

} // namespace rtls
