#include "downlink/win_server_pub_sub_proxy.h"

#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "downlink/generic_requests.h"
#include "downlink/update_announcement.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "link/sending.h"
#include "registry/nodes_container.h"
#include "wire/messaging.h"
#include "wire/node_request.h"

#include <array>
#include <memory>
#include <new>
#include <utility>

namespace rtls {

constexpr size_t command_min = 11; // a type, a byte and a MAC
constexpr suseconds_t repeat_interval_us = 50'000;
constexpr suseconds_t us_per_second = 1'000'000;
// Role bit that tells that the node takes its position in little-endian words.
constexpr uint8_t role_swaps_position = 0x80;

// The whole of a MSG_NWK_DATA_15_4_REQ has a 16-bit size.
constexpr size_t network_block_max = UINT16_MAX - mac_size;

// Errors name the dispatcher, and the type, whichever step finds them: log filters rely on it.
constexpr char dispatcher[] = "process_data_from_pub_sub_proxy";

// Runs `use` on the node with this MAC, if there is one; what it found. The lock is held until `use` has
// handed its frame over, so that the node's address and client stay the same. `use` may pass on a null
// client identity: a node heard of only by way of other clients is asked through every bridge.
template <typename Use>
static bool with_node(WIN_SERVER_t* server, bytes_view mac, Use use)
{
    NODES_CONTAINER_t& nodes = *server->nodes();
    const nodes_guard guard{nodes};
    const NODE_t* node = nodes.find_by_mac(mac.data());
    if (node)
        use(*node);
    return node != nullptr;
}

// A zero-terminated copy, or nullptr with the reason logged.
static std::unique_ptr<char[]> copy_text(bytes_view text)
{
    std::unique_ptr<char[]> copy{new (std::nothrow) char[text.size() + 1]};
    if (!copy) {
        logger_error(g_logger, str_out_of_memory, dispatcher);
        return nullptr;
    }
    memcpy(copy.get(), text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// --- one step for each type

static void ota_upload_fw(WIN_SERVER_t* server, bytes_view data)
{
    if (data.size() <= ota_upload::size) {
        logger_error(g_logger, "%s (MSG_OTA_UPLOAD_FW): msg too short %lu", dispatcher, data.size());
        return;
    }
    const size_t expected = ota_upload::size + load_be16(data, ota_upload::len);
    if (data.size() != expected) {
        logger_error(g_logger, "%s (MSG_OTA_UPLOAD_FW): msg wrong size rcvd:%lu  expected:%lu", dispatcher,
                     data.size(), expected);
        return;
    }
    const std::unique_ptr<char[]> url = copy_text(data.subspan(ota_upload::size));
    if (!url)
        return;
    const uint32_t git_ver = load_be32(data, ota_upload::git_ver);
    const uint32_t crc32 = load_be32(data, ota_upload::crc32);
    zsock_t* dbg = server->dbg_client_sock;
    dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_OTA_UPLOAD_FW mgd: %08X crc: %08X url: %s", git_ver, crc32,
              url.get());

    const int index = server->ota()->download_firmware(url.get(), &crc32, &git_ver);
    if (index == -1)
        dbg_print(dbg, DBG_PARSING, "PROXY", "Failed to read firmware!");
    else
        dbg_print(dbg, DBG_PARSING, "PROXY", "Firmware downloaded. Index: %d\n", index); // newline: sic
}

static void forward_network_data(WIN_SERVER_t* server, const NODE_t& node, bytes_view block)
{
    // On the stack, and not cleared: the builder writes every byte that is sent.
    std::array<uint8_t, network_block_max + node_request_overhead> frame;
    const size_t size = node_request_frame(frame, node, block, {});
    data_to_win_client(server, node.win_client_id, frame.data(), size);
}

static void nwk_data_req(WIN_SERVER_t* server, bytes_view data)
{
    if (data.size() < network_data::size) {
        logger_error(g_logger, "%s (MSG_NWK_DATA_15_4_REQ): wrong size %lu", dispatcher, data.size());
        return;
    }
    const uint16_t p_len = load_be16(data, network_data::p_len);
    if (data.size() > UINT16_MAX || data.size() != p_len + network_data::size) {
        logger_error(g_logger, "%s (MSG_NWK_DATA_15_4_REQ): wrong p_len %u", dispatcher, p_len);
        return;
    }
    const bytes_view mac = data.last(mac_size);
    zsock_t* dbg = server->dbg_client_sock;
    const bool found = with_node(server, mac, [&](const NODE_t& node) {
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_NWK_DATA_15_4_REQ dst:%02X%02X", mac[6], mac[7]);
        forward_network_data(server, node, data.first(data.size() - mac_size));
    });
    if (!found)
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_NWK_DATA_15_4_REQ dst %02X%02X not found", mac[6], mac[7]);
}

static void print_node_configuration(const WIN_SERVER_t* server, bytes_view data)
{
    using msg = srvMsgConfigNode_t;
    const uint32_t pos_Z = load_be32(data, msg::pos_Z);
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY",
              "MSG_CONF_NODE_REQ dst:%02X%02X rf:%d rngf:%d role:%02X sl:%02x xyz:%d;%d;%d zofs:%d",
              data[msg::long_addr + 6], data[msg::long_addr + 7], data[msg::reporting_freq],
              data[msg::ranging_freq], data[msg::node_role], data[msg::sublocation_id],
              static_cast<int32_t>(load_be32(data, msg::pos_X)),
              static_cast<int32_t>(load_be32(data, msg::pos_Y)), static_cast<int16_t>(pos_Z >> 16),
              static_cast<int16_t>(pos_Z & 0xFFFF));
}

// The configuration without its MAC, as the node takes it.
static std::array<uint8_t, srvMsgConfigNode_t::long_addr> node_configuration(bytes_view data)
{
    using msg = srvMsgConfigNode_t;
    std::array<uint8_t, msg::long_addr> out{};
    store_bytes(out, 0, data.first(out.size()));
    // The role bit decides, on purpose: nodes without it take the server's order.
    if ((data[msg::node_role] & role_swaps_position) != 0)
        for (const size_t at : {msg::pos_X, msg::pos_Y, msg::pos_Z}) {
            std::swap(out[at], out[at + 3]);
            std::swap(out[at + 1], out[at + 2]);
        }
    return out;
}

static void conf_node_req(WIN_SERVER_t* server, bytes_view data)
{
    if (data.size() != srvMsgConfigNode_t::size) {
        logger_error(g_logger, "%s (MSG_CONF_NODE_REQ): wrong size %lu", dispatcher, data.size());
        return;
    }
    const bytes_view mac = data.subspan(srvMsgConfigNode_t::long_addr);
    const bool found = with_node(server, mac, [&](const NODE_t& node) {
        print_node_configuration(server, data);
        std::array<uint8_t, srvMsgConfigNode_t::long_addr + node_request_overhead> frame{};
        const size_t size = node_request_frame(frame, node, node_configuration(data), mac);
        data_to_win_client(server, node.win_client_id, frame.data(), size);
    });
    if (!found)
        dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_CONF_NODE_REQ dst %02X%02X not found",
                  mac[6], mac[7]);
}

// Makes the image of `url` the current one and tells the bridges. If it contradicts the announced CRC
// there is no current image afterwards: the one before is out of date in any case.
// The announced CRC is big-endian and printed as it is in memory, as operators compare it.
static void adopt_firmware(WIN_SERVER_t* server, const char* url, bytes_view data)
{
    zsock_t* dbg = server->dbg_client_sock;
    FIRMWARE_t* firmware = firmware_get_from_url(url);
    if (!firmware) {
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_FW_IMAGE_AVAIL_IND cannot get firmware from: %s", url);
        return;
    }
    const uint32_t announced = load_be32(data, gwMsgFwImageAvailInd_t::crc32);
    const uint32_t computed = firmware->crc32;
    server->rtls_gateway->firmware.set(firmware);
    if (announced != 0 && announced != computed) {
        server->rtls_gateway->firmware.set(nullptr);
        dbg_print(dbg, DBG_PARSING, "PROXY",
                  "MSG_FW_IMAGE_AVAIL_IND bad crc32 sum: s:%08X d:%08X, firmware removed",
                  load_le32(data, gwMsgFwImageAvailInd_t::crc32), computed);
        return;
    }
    win_server_nodes_update(server, nullptr);
}

static void fw_image_avail_ind(WIN_SERVER_t* server, bytes_view data)
{
    using msg = gwMsgFwImageAvailInd_t;
    if (data.size() < msg::size + 2) {
        logger_error(g_logger, "%s (MSG_FW_IMAGE_AVAIL_IND): msg too short %lu", dispatcher, data.size());
        return;
    }
    const size_t expected = msg::size + load_be16(data, msg::len);
    if (data.size() != expected) {
        logger_error(g_logger, "%s (MSG_FW_IMAGE_AVAIL_IND): msg wrong size rcvd:%lu  expected:%lu",
                     dispatcher, data.size(), expected);
        return;
    }
    const std::unique_ptr<char[]> url = copy_text(data.subspan(msg::size));
    if (!url)
        return;
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY",
              "MSG_FW_IMAGE_AVAIL_IND mgd: %08X crc: %08X url: %s", load_le32(data, msg::sh1),
              load_le32(data, msg::crc32), url.get());
    adopt_firmware(server, url.get(), data);
}

static void generic_req(WIN_SERVER_t* server, bytes_view data)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_GENERIC_REQ");
    if (generic_process(server, data.data(), data.size()))
        firmware_interception(server, data.data(), data.size());
}

static void sensor_req(WIN_SERVER_t* server, bytes_view data)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_SENSOR_REQ");
    generic_process(server, data.data(), data.size());
}

static void conf_sensor_req(WIN_SERVER_t* server, bytes_view data)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_CONF_SENSOR_REQ");
    generic_process(server, data.data(), data.size());
}

static void tdoa_sched_conf_req(WIN_SERVER_t* server, bytes_view data)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_TDOA_SCHED_CONF_REQ");
    generic_process(server, data.data(), data.size());
}

static void rest_ack(WIN_SERVER_t* server, bytes_view data)
{
    if (data.size() != srvMsgAck_t::size) {
        logger_error(g_logger, "%s (MSG_REST_ACK): wrong size %lu", dispatcher, data.size());
        return;
    }
    const bytes_view mac = data.subspan(srvMsgAck_t::long_addr);
    zsock_t* dbg = server->dbg_client_sock;
    const bool found = with_node(server, mac, [&](const NODE_t& node) {
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_REST_ACK dst: %02X%02X seq:%02X", mac[6], mac[7],
                  data[srvMsgAck_t::seqNo]);
        std::array<uint8_t, gwMsgAck_t::size> frame{};
        // Bridges relay acknowledgements by address alone, so this type is never wrapped.
        const size_t size = node_request_direct(frame, node, data.first(srvMsgAck_t::long_addr));
        data_to_win_client(server, node.win_client_id, frame.data(), size);
    });
    if (!found)
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_REST_ACK node: %02X%02X not found", mac[6], mac[7]);
}

struct proxy_command {
    gwCmdID_t type;
    void (*run)(WIN_SERVER_t* server, bytes_view data); // checks the size itself
};
constexpr proxy_command proxy_commands[] = {
    {MSG_OTA_UPLOAD_FW, ota_upload_fw},
    {MSG_NWK_DATA_15_4_REQ, nwk_data_req},
    {MSG_CONF_NODE_REQ, conf_node_req},
    {MSG_FW_IMAGE_AVAIL_IND, fw_image_avail_ind},
    {MSG_GENERIC_REQ, generic_req},
    {MSG_REST_ACK, rest_ack},
    {MSG_SENSOR_REQ, sensor_req},
    {MSG_CONF_SENSOR_REQ, conf_sensor_req},
    {MSG_TDOA_SCHED_CONF_REQ, tdoa_sched_conf_req},
};

static void dispatch(WIN_SERVER_t* server, bytes_view data)
{
    const gwCmdID_t type = load_le16(data, msgGeneric_t::msgType);
    for (const proxy_command& command : proxy_commands)
        if (command.type == type)
            return command.run(server, data);
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "Received unknown type: %04X", type);
}

bool process_data_from_pub_sub_proxy(WIN_SERVER_t* server, uint8_t* data, size_t data_size)
{
    if (any_null(__func__, server, data))
        return false;
    NODES_CONTAINER_t* nodes = server->nodes();
    if (!nodes) {
        logger_error(g_logger, "%s: null nodes container not found!", __func__);
        return false;
    }
    if (data_size < command_min) {
        logger_error(g_logger, "%s: invalid input data!", __func__);
        return false;
    }
    // The one field that changes its byte order: what goes on to a bridge starts little-endian.
    std::swap(data[0], data[1]);

    timeval now{};
    gettimeofday(&now, nullptr);
    if (spam_filter(nodes, data, data_size, now))
        return false;
    dispatch(server, {data, data_size});
    return true;
}

// --- the spam filter

// A clock that was set back makes no repeat.
static bool is_within_repeat_interval(timeval earlier, timeval now)
{
    time_t seconds = now.tv_sec - earlier.tv_sec;
    suseconds_t microseconds = now.tv_usec - earlier.tv_usec;
    if (microseconds < 0) {
        microseconds += us_per_second;
        seconds -= 1;
    }
    return seconds == 0 && microseconds < repeat_interval_us;
}

// Whether `command` is the node's last one. Sequence numbers (byte 2, whatever it is in this type) do not
// count: the newer one replaces the stored one before the comparison.
static bool is_last_command(NODE_t& node, bytes_view command)
{
    if (!node.last_data || node.last_data_size != command.size())
        return false;
    if (memcmp(node.last_data, command.data(), sizeof(gwCmdID_t)) != 0)
        return false;
    node.last_data[msgGeneric_t::seqNo] = command[msgGeneric_t::seqNo];
    return memcmp(node.last_data, command.data(), command.size()) == 0;
}

static void remember_command(NODE_t& node, bytes_view command)
{
    if (command.size() > node.max_data_size) {
        void* grown = realloc(node.last_data, command.size());
        if (!grown) {
            logger_error(g_logger, str_out_of_memory, "spam_filter");
            return;
        }
        node.last_data = static_cast<uint8_t*>(grown);
        node.max_data_size = command.size();
    }
    memcpy(node.last_data, command.data(), command.size());
    node.last_data_size = command.size();
}

bool spam_filter(void* p_nodes, const uint8_t* data, size_t data_size, timeval now)
{
    if (any_null(__func__, p_nodes, data))
        return false;
    if (data_size < command_min)
        return false;
    const bytes_view command{data, data_size - mac_size};

    auto& nodes = *static_cast<NODES_CONTAINER_t*>(p_nodes);
    const nodes_guard guard{nodes};
    NODE_t* node = nodes.find_by_mac(data + command.size());
    if (!node)
        return false;
    // The time moves on with repeats, too: a steady stream of them stays suppressed.
    const timeval last = std::exchange(node->last_data_time, now);
    if (is_within_repeat_interval(last, now) && is_last_command(*node, command))
        return true;
    remember_command(*node, command);
    return false;
}

// --- firmware pages on their way down

// Whether the bytes at hand hold a whole page, and the request says that it carries one.
static bool carries_firmware_page(bytes_view request)
{
    if (request.size() < ota_page::size)
        return false;
    const size_t total_len = load_be16(request, msgHeader_t::total_len);
    const size_t page_size = load_be16(request, ota_page::page_size);
    return total_len > ota_page::total_len && load_be16(request, ota_page::command) == GENERIC_REQ_OtaPage &&
           total_len >= page_size + ota_page::total_len && request.size() >= page_size + ota_page::size;
}

bool firmware_interception(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen)
{
    if (any_null(__func__, server, buf))
        return false;
    OTA_t* ota = server->ota();
    if (!ota) {
        logger_error(g_logger, "%s: rtls_gateway_get_ota returns NULL!", __func__);
        return false;
    }
    const bytes_view request{buf, parsedlen};
    if (!carries_firmware_page(request))
        return false;
    return ota->set_firmware_page(load_be32(request, ota_page::git_id), load_be32(request, ota_page::crc32),
                                  load_be16(request, ota_page::page_size),
                                  load_be16(request, ota_page::page_number), buf + ota_page::size);
}

// --- the reader

static void process_text(WIN_SERVER_t* server, const char* text)
{
    constexpr char function[] = "handle_pub_sub_proxy";
    const size_t data_size = strlen(text) / 2;
    if (data_size <= sizeof(gwCmdID_t)) {
        logger_error(g_logger, "%s: wrong size of input data!", function);
        return;
    }
    const std::unique_ptr<uint8_t[]> data{new (std::nothrow) uint8_t[data_size]};
    if (!data) {
        logger_error(g_logger, str_out_of_memory, function);
        return;
    }
    // The decoder's one byte more than its limit cannot happen here: the text has no further pair. But it
    // looks at what follows the last pair, and refuses the text for trailing garbage.
    const auto limit = static_cast<ssize_t>(data_size);
    if (string_to_uint8_arr(text, data.get(), limit) != limit) {
        logger_error(g_logger, "%s: string_to_uint8_arr: wrong input data!", function);
        return;
    }
    process_data_from_pub_sub_proxy(server, data.get(), data_size);
}

int handle_pub_sub_proxy(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    if (any_null(__func__, reader, p_server))
        return 0;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    // Before anything else: even a failed receive is a sign of life.
    server->proxy_is_silent = false;

    const zstr_ptr text{zstr_recv(reader)};
    if (!text) {
        logger_error(g_logger, "%s: zstr_recv return NULL!", __func__);
        return 0;
    }
    dbg_print(server->dbg_client_sock, DBG_RAW, "PROXY_RAW_INPUT", "%s", text.get());
    process_text(server, text.get());
    return 0;
}

} // namespace rtls
