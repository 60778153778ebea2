#include "wire/ota_pages.h"

namespace rtls {

std::optional<ota_page_request> read_ota_page_request(bytes_view message)
{
    if (message.size() < ota_page::size)
        return std::nullopt;
    return ota_page_request{
        .git_id = load_be32(message, ota_page::git_id),
        .crc32 = load_be32(message, ota_page::crc32),
        .page_size = load_be16(message, ota_page::page_size),
        .page_number = load_be16(message, ota_page::page_number),
    };
}

void write_ota_response_frame(bytes_view request, const uint8_t* node_mac, bytes_span response)
{
    const uint16_t page_size = load_be16(request, ota_page::page_size);
    store_bytes(response, 0, request.first(ota_page::size));
    store_le16(response, msgHeader_t::msgType, MSG_GENERIC_REQ);
    // The forwarder of generic requests reads the length big-endian, unlike the type before it.
    store_be16(response, msgHeader_t::total_len, static_cast<uint16_t>(page_size + ota_page::total_len));
    store_bytes(response, ota_response_page + page_size, {node_mac, mac_size});
}

} // namespace rtls
