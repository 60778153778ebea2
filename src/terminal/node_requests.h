// terminal_node_requests - the messages that operators' commands send to nodes.
//
// Each is a generic request as the WIN server takes it: a header, a body, and the destination's MAC.
#pragma once

#include "base/bytes.h"
#include "firmware/ota.h"
#include "registry/nodes_container.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace rtls {

using mac_array = std::array<uint8_t, mac_size>;

constexpr size_t reboot_request_size = 19;
constexpr size_t apply_request_size = 15;

// "Reboot."
std::array<uint8_t, reboot_request_size> make_reboot_request(const mac_array& mac);

// "Run the firmware that you have fetched."
std::array<uint8_t, apply_request_size> make_apply_request(const mac_array& mac);

// "Fetch this firmware": from the node whose short MAC is `source`, from the gateway (0), or, without
// a source, passively.
std::vector<uint8_t> make_set_request(const OTA_FIRMWARE_INFO_t& info, std::optional<uint16_t> source,
                                      const mac_array& mac);

// Whom a short MAC addresses: the MAC of the first node that ends in it. Takes the registry's lock.
std::optional<mac_array> find_mac_by_short(NODES_CONTAINER_t* nodes, uint16_t short_mac);

// Removes that node from the registry. False when there is none. Takes the registry's lock.
bool delete_node_by_short_mac(NODES_CONTAINER_t* nodes, uint16_t short_mac);

} // namespace rtls
