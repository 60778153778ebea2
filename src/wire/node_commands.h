// node_commands - the requests by which operators command nodes.
//
// Each is a generic request as the WIN server takes it: a header, a body, and the destination's MAC.
// Pure functions: no socket, no lock.
// Threads    Any. Nothing waits.
// Bytes      Big-endian, but for the type: layouts reboot_request, apply_request and set_request in
//            messaging.h.
// Failures   Only make_set_request allocates, and throws std::bad_alloc.
#pragma once

#include "registry/addresses.h"
#include "wire/messaging.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace rtls {

// "Reboot."
std::array<uint8_t, reboot_request::size> make_reboot_request(const mac_array& mac);

// "Run the firmware that you have fetched."
std::array<uint8_t, apply_request::size> make_apply_request(const mac_array& mac);

// What the node firmware expects in front of an image's description: a sub-command, and a byte without a meaning
// to us.
constexpr std::array<uint8_t, 3> set_request_body_head{0x00, 0x0E, 0x20};

// An image as a node is told of it.
struct offered_image {
    uint32_t git_ver;
    uint32_t crc32;
    size_t size; // bytes; its low 32 bits are sent
};

// "Fetch this firmware": from the node whose short MAC is `source`, from the gateway (0), or, without
// a source, passively.
std::vector<uint8_t> make_set_request(const offered_image& image, std::optional<uint16_t> source,
                                      const mac_array& mac);

} // namespace rtls
