// ota_pages - the requests of nodes for pages of a firmware image, and our answers.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"
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
    return ota_response_page + page_size + 8U;
}

// Writes all of the answer but the page into `response` of ota_response_size bytes: the request's own
// fields under a new header, and the node's MAC (8 bytes) behind the place of the page.
void write_ota_response_frame(bytes_view request, const uint8_t* node_mac, bytes_span response);

// Answers a node's request for a page from the store. False when the image or the page is not there: the
// servers are to be asked then. WIN server thread only.
bool send_otapage_from_cache(WIN_SERVER_t* server, bytes_view message, const uint8_t* node_mac);

} // namespace rtls
