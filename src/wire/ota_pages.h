// ota_pages - a node's request for a page of a firmware image, and the frame of the answer.
//
// Pure functions: no socket, no lock, no memory of their own.
// Threads    Any. Nothing waits.
// Bytes      Big-endian, but for the answer's type: layout ota_page in messaging.h.
// Failures   Nothing throws: what is too short for a request is none.
#pragma once

#include "base/bytes.h"
#include "registry/addresses.h"
#include "wire/messaging.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace rtls {

struct ota_page_request {
    uint32_t git_id;
    uint32_t crc32;
    uint16_t page_size;
    uint16_t page_number;
};

// The request, or nothing when the message is too short for one.
std::optional<ota_page_request> read_ota_page_request(bytes_view message);

// The answer is a MSG_GENERIC_REQ: head, page, MAC of the node.
constexpr size_t ota_response_page = ota_page::size;
constexpr size_t ota_response_size(uint16_t page_size)
{
    return ota_response_page + page_size + mac_size;
}

// Writes all of the answer but the page into `response` of ota_response_size bytes: the request's own
// fields under a new header, and the node's MAC (8 bytes) behind the place of the page.
void write_ota_response_frame(bytes_view request, const uint8_t* node_mac, bytes_span response);

} // namespace rtls
