#include "wire/node_commands.h"

#include "base/bytes.h"

namespace rtls {

// What all of them begin with. The type is little-endian as everywhere on the WIN link, the length and
// all that follows big-endian: the nodes' own order.
static void store_header(bytes_span request, size_t body_size)
{
    store_le16(request, msgHeader_t::msgType, MSG_GENERIC_REQ);
    request[msgHeader_t::seqNo] = 0;
    store_be16(request, msgHeader_t::total_len, static_cast<uint16_t>(body_size));
}

std::array<uint8_t, reboot_request::size> make_reboot_request(const mac_array& mac)
{
    std::array<uint8_t, reboot_request::size> request{}; // the parameter stays zero
    store_header(request, reboot_request::mac - msgHeader_t::size);
    store_be16(request, reboot_request::command, GENERIC_REQ_Reboot);
    store_be16(request, reboot_request::parameter_len, reboot_request::mac - reboot_request::parameter);
    store_bytes(request, reboot_request::mac, mac);
    return request;
}

std::array<uint8_t, apply_request::size> make_apply_request(const mac_array& mac)
{
    std::array<uint8_t, apply_request::size> request{};
    store_header(request, apply_request::mac - msgHeader_t::size);
    store_be16(request, apply_request::command, GENERIC_REQ_OtaApply);
    store_bytes(request, apply_request::mac, mac);
    return request;
}

std::vector<uint8_t> make_set_request(const offered_image& image, std::optional<uint16_t> source,
                                      const mac_array& mac)
{
    const size_t mac_at = set_request::source + (source ? set_request::source_size : 0);
    std::vector<uint8_t> request(mac_at + mac_size);
    store_header(request, mac_at - msgHeader_t::size);
    store_bytes(request, set_request::body_head, set_request_body_head);
    request[set_request::description_size] = static_cast<uint8_t>(mac_at - set_request::git_ver);
    store_be32(request, set_request::git_ver, image.git_ver);
    store_be32(request, set_request::crc32, image.crc32);
    store_be32(request, set_request::image_size, static_cast<uint32_t>(image.size));
    if (source)
        store_be16(request, set_request::source, *source);
    store_bytes(request, mac_at, mac);
    return request;
}

} // namespace rtls
