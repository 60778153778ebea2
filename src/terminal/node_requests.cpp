#include "terminal/node_requests.h"

#include "base/logger.h"
#include "registry/nodes_container.h"
#include "wire/messaging.h"

#include <cstring>

namespace rtls {

namespace {

constexpr uint16_t generic_req_reboot = 1;
constexpr char str_null_nodes[] = "%s: null pointer to nodes container!";

// What all of them begin with. The type is little-endian as everywhere on the WIN link, the length and
// all that follows big-endian: the nodes' own order.
void store_header(bytes_span request, size_t body_size)
{
    store_le16(request, msgHeader_t::msgType, MSG_GENERIC_REQ);
    request[msgHeader_t::seqNo] = 0;
    store_be16(request, msgHeader_t::total_len, static_cast<uint16_t>(body_size));
}

namespace reboot_request {
constexpr size_t command = 5;       // u16
constexpr size_t parameter_len = 7; // u16
constexpr size_t parameter = 9;     // u8[2], zero
constexpr size_t mac = 11;
static_assert(mac + mac_size == reboot_request_size);
} // namespace reboot_request

namespace apply_request {
constexpr size_t command = 5; // u16
constexpr size_t mac = 7;
static_assert(mac + mac_size == apply_request_size);
} // namespace apply_request

namespace set_request {
constexpr size_t body_head = 5;        // u8[3], the node firmware's own
constexpr size_t description_size = 8; // u8, of all that follows up to the MAC
constexpr size_t git_ver = 9;          // u32
constexpr size_t crc32 = 13;           // u32
constexpr size_t image_size = 17;      // u32
constexpr size_t source = 21;          // u16, not there in the passive mode
constexpr size_t source_size = 2;
constexpr std::array<uint8_t, 3> body_head_bytes{0x00, 0x0E, 0x20};
} // namespace set_request

} // namespace

std::array<uint8_t, reboot_request_size> make_reboot_request(const mac_array& mac)
{
    using namespace reboot_request;
    std::array<uint8_t, reboot_request_size> request{};
    store_header(request, reboot_request::mac - msgHeader_t::size);
    store_be16(request, command, generic_req_reboot);
    store_be16(request, parameter_len, reboot_request::mac - parameter);
    store_bytes(request, reboot_request::mac, mac);
    return request;
}

std::array<uint8_t, apply_request_size> make_apply_request(const mac_array& mac)
{
    std::array<uint8_t, apply_request_size> request{};
    store_header(request, apply_request::mac - msgHeader_t::size);
    store_be16(request, apply_request::command, GENERIC_REQ_OtaApply);
    store_bytes(request, apply_request::mac, mac);
    return request;
}

std::vector<uint8_t> make_set_request(const OTA_FIRMWARE_INFO_t& info, std::optional<uint16_t> source,
                                      const mac_array& mac)
{
    const size_t mac_at = set_request::source + (source ? set_request::source_size : 0);
    std::vector<uint8_t> request(mac_at + mac_size);
    store_header(request, mac_at - msgHeader_t::size);
    store_bytes(request, set_request::body_head, set_request::body_head_bytes);
    request[set_request::description_size] = static_cast<uint8_t>(mac_at - set_request::git_ver);
    store_be32(request, set_request::git_ver, info.git_ver);
    store_be32(request, set_request::crc32, info.crc32);
    store_be32(request, set_request::image_size, static_cast<uint32_t>(info.size));
    if (source)
        store_be16(request, set_request::source, *source);
    store_bytes(request, mac_at, mac);
    return request;
}

static std::optional<mac_array> find_mac_locked(NODES_CONTAINER_t& nodes, uint16_t short_mac)
    RTLS_REQUIRES(nodes);

static std::optional<mac_array> find_mac_locked(NODES_CONTAINER_t& nodes, uint16_t short_mac)
{
    const NODE_t* node =
        nodes.find_by_short_mac(static_cast<uint8_t>(short_mac >> 8), static_cast<uint8_t>(short_mac));
    if (!node)
        return std::nullopt;
    mac_array mac;
    std::memcpy(mac.data(), node->mac_addr, mac.size());
    return mac;
}

std::optional<mac_array> find_mac_by_short(NODES_CONTAINER_t* nodes, uint16_t short_mac)
{
    if (!nodes) {
        logger_error(g_logger, str_null_nodes, __func__);
        return std::nullopt;
    }
    const nodes_guard guard{*nodes};
    return find_mac_locked(*nodes, short_mac);
}

bool delete_node_by_short_mac(NODES_CONTAINER_t* nodes, uint16_t short_mac)
{
    if (!nodes) {
        logger_error(g_logger, str_null_nodes, __func__);
        return false;
    }
    const nodes_guard guard{*nodes};
    const auto mac = find_mac_locked(*nodes, short_mac);
    if (mac)
        nodes->remove(mac->data());
    return mac.has_value();
}

} // namespace rtls
