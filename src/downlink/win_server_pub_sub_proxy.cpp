#include "downlink/win_server_pub_sub_proxy.h"

#include "base/logger.h"
#include "base/null_check.h"
#include "downlink/generic_requests.h"
#include "downlink/image_orders.h"
#include "downlink/node_delivery.h"
#include "downlink/page_interception.h"
#include "downlink/spam_filter.h"
#include "wire/messaging.h"

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace rtls {

// Role bit that tells that the node takes its position in little-endian words.
static constexpr uint8_t role_swaps_position = 0x80;

// The whole of a MSG_NWK_DATA_15_4_REQ has a 16-bit size.
static constexpr size_t network_block_max = UINT16_MAX - mac_size;

// Errors name the dispatcher, and the type, whichever step finds them: log filters rely on it.
static constexpr char dispatcher[] = "process_data_from_pub_sub_proxy";

// A zero-terminated copy, or nullptr with the reason logged.
static std::unique_ptr<char[]> copy_text(bytes_view text)
{
    std::unique_ptr<char[]> copy{new (std::nothrow) char[text.size() + 1]};
    if (!copy) {
        logger_error(g_logger, str_out_of_memory, dispatcher);
        return nullptr;
    }
    std::memcpy(copy.get(), text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

namespace {

// One command, its type in a bridge's byte order already.
struct command_at_hand {
    bytes_view data;
    looked_up_node node; // whose MAC is at its end, as the spam filter has found it
};

} // namespace

// --- one step for each type

static command_outcome ota_upload_fw(WIN_SERVER_t* server, command_at_hand& command)
{
    const bytes_view data = command.data;
    if (data.size() <= ota_upload::size) {
        logger_error(g_logger, "%s (MSG_OTA_UPLOAD_FW): msg too short %lu", dispatcher, data.size());
        return command_outcome::malformed;
    }
    const size_t expected = ota_upload::size + load_be16(data, ota_upload::len);
    if (data.size() != expected) {
        logger_error(g_logger, "%s (MSG_OTA_UPLOAD_FW): msg wrong size rcvd:%lu  expected:%lu", dispatcher,
                     data.size(), expected);
        return command_outcome::malformed;
    }
    const std::unique_ptr<char[]> url = copy_text(data.subspan(ota_upload::size));
    if (!url)
        return command_outcome::out_of_memory;
    const uint32_t git_ver = load_be32(data, ota_upload::git_ver);
    const uint32_t crc32 = load_be32(data, ota_upload::crc32);
    zsock_t* dbg = server->dbg_client_sock;
    dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_OTA_UPLOAD_FW mgd: %08X crc: %08X url: %s", git_ver, crc32,
              url.get());

    fetch_for_store(*server, url.get(), git_ver, crc32);
    return command_outcome::ordered;
}

static command_outcome forward_network_data(WIN_SERVER_t* server, const node_route& route, bytes_view block)
{
    // On the stack, and not cleared: the builder writes every byte that is sent.
    std::array<uint8_t, network_block_max + node_request_overhead> frame;
    const size_t size = node_request_frame(frame, route, block, {});
    return send_to_node(server, route, bytes_view{frame}.first(size));
}

static command_outcome nwk_data_req(WIN_SERVER_t* server, command_at_hand& command)
{
    const bytes_view data = command.data;
    if (data.size() < network_data::size) {
        logger_error(g_logger, "%s (MSG_NWK_DATA_15_4_REQ): wrong size %lu", dispatcher, data.size());
        return command_outcome::malformed;
    }
    const uint16_t p_len = load_be16(data, network_data::p_len);
    if (data.size() > UINT16_MAX || data.size() != p_len + network_data::size) {
        logger_error(g_logger, "%s (MSG_NWK_DATA_15_4_REQ): wrong p_len %u", dispatcher, p_len);
        return command_outcome::malformed;
    }
    const bytes_view mac = data.last(mac_size);
    zsock_t* dbg = server->dbg_client_sock;
    const node_route* route = find_route(server, mac, command.node);
    if (!route) {
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_NWK_DATA_15_4_REQ dst %02X%02X not found", mac[6], mac[7]);
        return command_outcome::node_not_found;
    }
    dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_NWK_DATA_15_4_REQ dst:%02X%02X", mac[6], mac[7]);
    return forward_network_data(server, *route, data.first(data.size() - mac_size));
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

static command_outcome conf_node_req(WIN_SERVER_t* server, command_at_hand& command)
{
    const bytes_view data = command.data;
    if (data.size() != srvMsgConfigNode_t::size) {
        logger_error(g_logger, "%s (MSG_CONF_NODE_REQ): wrong size %lu", dispatcher, data.size());
        return command_outcome::malformed;
    }
    const bytes_view mac = data.subspan(srvMsgConfigNode_t::long_addr);
    const node_route* route = find_route(server, mac, command.node);
    if (!route) {
        dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_CONF_NODE_REQ dst %02X%02X not found",
                  mac[6], mac[7]);
        return command_outcome::node_not_found;
    }
    print_node_configuration(server, data);
    std::array<uint8_t, srvMsgConfigNode_t::long_addr + node_request_overhead> frame{};
    const size_t size = node_request_frame(frame, *route, node_configuration(data), mac);
    return send_to_node(server, *route, bytes_view{frame}.first(size));
}

static command_outcome fw_image_avail_ind(WIN_SERVER_t* server, command_at_hand& command)
{
    const bytes_view data = command.data;
    using msg = gwMsgFwImageAvailInd_t;
    if (data.size() < msg::size + 2) {
        logger_error(g_logger, "%s (MSG_FW_IMAGE_AVAIL_IND): msg too short %lu", dispatcher, data.size());
        return command_outcome::malformed;
    }
    const size_t expected = msg::size + load_be16(data, msg::len);
    if (data.size() != expected) {
        logger_error(g_logger, "%s (MSG_FW_IMAGE_AVAIL_IND): msg wrong size rcvd:%lu  expected:%lu",
                     dispatcher, data.size(), expected);
        return command_outcome::malformed;
    }
    const std::unique_ptr<char[]> url = copy_text(data.subspan(msg::size));
    if (!url)
        return command_outcome::out_of_memory;
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY",
              "MSG_FW_IMAGE_AVAIL_IND mgd: %08X crc: %08X url: %s", load_le32(data, msg::sh1),
              load_le32(data, msg::crc32), url.get());
    fetch_announced(*server, url.get(), load_be32(data, msg::crc32), load_le32(data, msg::crc32));
    return command_outcome::ordered;
}

static command_outcome generic_req(WIN_SERVER_t* server, command_at_hand& command)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_GENERIC_REQ");
    const command_outcome outcome = forward_generic(*server, command.data, command.node);
    if (was_forwarded(outcome))
        firmware_interception(server, command.data.data(), command.data.size());
    return outcome;
}

static command_outcome sensor_req(WIN_SERVER_t* server, command_at_hand& command)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_SENSOR_REQ");
    return forward_generic(*server, command.data, command.node);
}

static command_outcome conf_sensor_req(WIN_SERVER_t* server, command_at_hand& command)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_CONF_SENSOR_REQ");
    return forward_generic(*server, command.data, command.node);
}

static command_outcome tdoa_sched_conf_req(WIN_SERVER_t* server, command_at_hand& command)
{
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "MSG_TDOA_SCHED_CONF_REQ");
    return forward_generic(*server, command.data, command.node);
}

static command_outcome rest_ack(WIN_SERVER_t* server, command_at_hand& command)
{
    const bytes_view data = command.data;
    if (data.size() != srvMsgAck_t::size) {
        logger_error(g_logger, "%s (MSG_REST_ACK): wrong size %lu", dispatcher, data.size());
        return command_outcome::malformed;
    }
    const bytes_view mac = data.subspan(srvMsgAck_t::long_addr);
    zsock_t* dbg = server->dbg_client_sock;
    const node_route* route = find_route(server, mac, command.node);
    if (!route) {
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_REST_ACK node: %02X%02X not found", mac[6], mac[7]);
        return command_outcome::node_not_found;
    }
    dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_REST_ACK dst: %02X%02X seq:%02X", mac[6], mac[7],
              data[srvMsgAck_t::seqNo]);
    std::array<uint8_t, gwMsgAck_t::size> frame{};
    // Bridges relay acknowledgements by address alone, so this type is never wrapped.
    node_request_direct(frame, *route, data.first(srvMsgAck_t::long_addr));
    return send_to_node(server, *route, frame);
}

namespace {

// A row is a type and the step that handles it; the function that walks the rows never grows.
struct proxy_command {
    gwCmdID_t type;
    command_type kind;
    command_outcome (*run)(WIN_SERVER_t* server, command_at_hand& command); // checks the size itself
};

} // namespace

static constexpr proxy_command proxy_commands[] = {
    {MSG_OTA_UPLOAD_FW, command_type::ota_upload_fw, ota_upload_fw},
    {MSG_NWK_DATA_15_4_REQ, command_type::nwk_data_req, nwk_data_req},
    {MSG_CONF_NODE_REQ, command_type::conf_node_req, conf_node_req},
    {MSG_FW_IMAGE_AVAIL_IND, command_type::fw_image_avail_ind, fw_image_avail_ind},
    {MSG_GENERIC_REQ, command_type::generic_req, generic_req},
    {MSG_REST_ACK, command_type::rest_ack, rest_ack},
    {MSG_SENSOR_REQ, command_type::sensor_req, sensor_req},
    {MSG_CONF_SENSOR_REQ, command_type::conf_sensor_req, conf_sensor_req},
    {MSG_TDOA_SCHED_CONF_REQ, command_type::tdoa_sched_conf_req, tdoa_sched_conf_req},
};

static const proxy_command* find_row(gwCmdID_t type)
{
    for (const proxy_command& row : proxy_commands)
        if (row.type == type)
            return &row;
    return nullptr;
}

// Runs the step of the command's type; its type is swapped already. What no row names is printed.
static command_outcome dispatch(WIN_SERVER_t* server, const proxy_command* row, command_at_hand& command)
{
    if (row)
        return row->run(server, command);
    dbg_print(server->dbg_client_sock, DBG_PARSING, "PROXY", "Received unknown type: %04X",
              load_le16(command.data, msgGeneric_t::msgType));
    return command_outcome::unknown_type;
}

// The one place where commands that could be read are counted: each once.
bool process_command(WIN_SERVER_t& server, bytes_span data, timeval now)
{
    NODES_CONTAINER_t* nodes = server.nodes();
    if (!nodes) {
        logger_error(g_logger, str_no_nodes_container, dispatcher);
        return false;
    }
    if (data.size() < proxy_command_min) {
        server.counts.note(command_type::undecodable, command_outcome::malformed);
        logger_error(g_logger, "%s: invalid input data!", dispatcher);
        return false;
    }
    // The one field that changes its byte order: what goes on to a bridge starts little-endian.
    std::swap(data[0], data[1]);
    command_at_hand command{.data = data, .node = {}};
    const proxy_command* row = find_row(load_le16(data, msgGeneric_t::msgType));
    const command_type kind = row ? row->kind : command_type::other;

    const bool is_repeat = spam_filter(*nodes, data, now, command.node);
    server.counts.note(kind, is_repeat ? command_outcome::repeat : dispatch(&server, row, command));
    return !is_repeat;
}

bool process_data_from_pub_sub_proxy(WIN_SERVER_t* server, uint8_t* data, size_t data_size)
{
    if (any_null(__func__, server, data))
        return false;
    timeval now{};
    gettimeofday(&now, nullptr);
    return process_command(*server, {data, data_size}, now);
}

} // namespace rtls
