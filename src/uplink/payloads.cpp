#include "uplink/payloads.h"

#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "downlink/page_serving.h"
#include "uplink/upstream.h"
#include "wire/report_texts.h"

#include <cstring>
#include <memory>
#include <new>
#include <optional>

namespace rtls {

static constexpr size_t copy_limit = 1050;             // bytes of a generic request's copy
static constexpr uint16_t generic_length_limit = 1043; // first length that is refused
static constexpr uint16_t sensor_length_limit = 293;
static_assert(generic_length_limit - 1 + mac_size == copy_limit);

namespace {

// A message with a payload, checked, and its copy for the message handler.
struct payload_message {
    uint16_t total_len;
    uint16_t length;          // header and payload; 16 bits, so that it may have wrapped
    uint8_t short_mac[2];     // of the sender
    size_t copy_size;         // the message and the sender's MAC
    uint8_t copy[copy_limit]; // header big-endian

    const uint8_t* sender_mac() const { return copy + length; }
};

} // namespace

// Checks the sizes, makes the copy, and learns from the trailer where an ack goes. A forwarded message's
// trailer begins with a MAC instead of an address; its ack carries these bytes all the same.
static bool open_message(link_frame& frame, uint16_t length_limit, payload_message& message)
{
    const bytes_view msg = frame.msg;
    if (msg.size() <= msgHeader_t::size)
        return false;
    message.total_len = load_le16(msg, msgHeader_t::total_len);
    message.length = static_cast<uint16_t>(message.total_len + msgHeader_t::size);
    if (msg.size() < size_t{message.length} + ip_addr_size || message.length >= length_limit)
        return false;

    message.copy_size = message.length + mac_size;
    const bytes_span copy{message.copy, message.copy_size};
    store_bytes(copy, 0, msg.first(message.copy_size));
    store_be16(copy, msgHeader_t::msgType, frame.type);
    store_be16(copy, msgHeader_t::total_len, message.total_len);
    frame.acknowledge_to(&msg[message.length]);
    return true;
}

static void print_unknown_sender(const link_frame& frame, const uint8_t* ip_addr)
{
    if (!dbg_is_wanted(DBG_PARSING))
        return;
    dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                 "range ip: %s to mac return NULL", ipv6_text{ip_addr}.c_str());
}

// Finds the sender by the trailer, a MAC if forwarded, else an address, and has the copy end with its
// MAC. Otherwise what becomes of the message.
static std::optional<message_outcome> find_sender(link_frame& frame, payload_message& message)
{
    const uint8_t* trailer = &frame.msg[message.length];
    const nodes_guard guard{frame.nodes};
    NODE_t* node = frame.msg_is_forwarded ? frame.nodes.find_or_create_by_mac(trailer, frame.seq_no())
                                          : frame.nodes.find_by_ip(trailer);
    if (!node)
        return frame.msg_is_forwarded ? frame.refusal_locked() : message_outcome::unknown_node;
    frame.note_locked(frame.news, frame.has_news, *node, false); // a report leaves the route where it is
    node->last_activity = frame.activity();
    std::memcpy(message.short_mac, node->mac_addr + mac_size - 2, sizeof message.short_mac);
    if (!frame.msg_is_forwarded)
        std::memcpy(message.copy + message.length, node->mac_addr, mac_size);
    return std::nullopt;
}

// The same, and prints why there is none.
static std::optional<message_outcome> identify_sender(link_frame& frame, payload_message& message)
{
    const auto refusal = find_sender(frame, message);
    if (!refusal)
        return refusal;
    if (frame.msg_is_forwarded)
        dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                     "nodes_container_find_or_create_by_mac returns NULL");
    else
        print_unknown_sender(frame, &frame.msg[message.length]);
    return refusal;
}

message_outcome handle_sensor_report(link_frame& frame)
{
    payload_message message; // large, and filled as far as it is used
    if (!open_message(frame, sensor_length_limit, message))
        return message_outcome::wrong_size;
    if (const auto refusal = identify_sender(frame, message))
        return *refusal;
    dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                 "MSG_SENSOR_IND_NEW: [%d] in_buf_size:%d  src:%02X%02X", frame.type & 0xFF,
                 message.total_len, message.short_mac[0], message.short_mac[1]);
    return frame.to_msg_handler({message.copy, message.copy_size});
}

// --- sub-commands of generic requests

namespace {

// Nothing: the servers get the request.
using done = std::optional<message_outcome>;

} // namespace

static done answer_route_request(link_frame& frame, const payload_message& message)
{
    const size_t requesters = route_requesters(message.total_len);
    const size_t size = route_request_text_size(requesters);
    const std::unique_ptr<char[]> text{new (std::nothrow) char[size]};
    if (!text) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return message_outcome::out_of_memory;
    }
    write_route_request_text(frame.msg, requesters, {text.get(), size});
    win_management_to_server(&frame.server, text.get());
    return message_outcome::line;
}

static done answer_ota_page(link_frame& frame, const payload_message& message)
{
    const bool served = send_otapage_from_cache(&frame.server, frame.client, frame.msg, message.sender_mac());
    return served ? done{message_outcome::answered} : std::nullopt;
}

static void print_ul_tdoa(WIN_SERVER_t* server, const ul_tdoa_report& report)
{
    const uint8_t* tag = report.tag_mac;
    const uint8_t* responder = report.responder_mac;
    const uint8_t* reporter = report.reporter_mac;
    dbg_print(server->dbg_client_sock, DBG_PARSING, "UL_TDOA_INPUT",
              "TagMac:%02X%02X%02X%02X%02X%02X PeSeqNo:%u RespAnchorMac:%02X%02X%02X%02X%02X%02X "
              "ReporterMac:%02X%02X%02X%02X%02X%02X RangeMm:%d TagLqi:%u RespAnchorLqi:%u",
              tag[0], tag[1], tag[2], tag[3], tag[4], tag[5], report.pe_seq_no, responder[0], responder[1],
              responder[2], responder[3], responder[4], responder[5], reporter[0], reporter[1], reporter[2],
              reporter[3], reporter[4], reporter[5], report.range_mm, report.tag_lqi, report.resp_anchor_lqi);
    if (report.board)
        dbg_print(server->dbg_client_sock, DBG_PARSING, "UL_TDOA_INPUT",
                  "BoardVersion:%u BoardRevision:%u Flags:%X FirmwareId:%X BattVoltage:%u",
                  report.board->version, report.board->revision, report.board->flags,
                  report.board->firmware_id, report.board->batt_voltage);
    if (report.percent_of_charge)
        dbg_print(server->dbg_client_sock, DBG_PARSING, "UL_TDOA_INPUT", "PercentOfCharge:%u",
                  *report.percent_of_charge);
}

bool processing_ul_tdoa(WIN_SERVER_t* server, bytes_view message, const uint8_t* /*node_mac*/)
{
    if (any_null(__func__, server, message.data()))
        return false;
    const auto report = read_ul_tdoa(message);
    if (!report)
        return false;
    print_ul_tdoa(server, *report);
    char text[ul_tdoa_text_limit];
    write_ul_tdoa_text(*report, text);
    win_management_to_server(server, text);
    return true;
}

static done publish_ul_tdoa(link_frame& frame, const payload_message& message)
{
    const bool published = processing_ul_tdoa(&frame.server, frame.msg, message.sender_mac());
    return published ? done{message_outcome::line} : std::nullopt;
}

static constexpr size_t range_report_entries(uint16_t total_len)
{
    return (total_len - range_report::fixed_len) / range_report::entry_size;
}

static done print_range_report(link_frame& frame, const payload_message& message)
{
    if (!dbg_is_wanted(DBG_PARSING))
        return std::nullopt;
    for (size_t i = 0; i < range_report_entries(message.total_len); i++) {
        const bytes_view entry = bytes_view{frame.msg}.subspan(
            range_report::entries + i * range_report::entry_size, range_report::entry_size);
        dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "RANGE_RPT",
                     "%02X%02X, %02X%02X, %10u, %5u", message.short_mac[0], message.short_mac[1],
                     entry[range_report::short_mac], entry[range_report::short_mac + 1],
                     load_be32(entry, range_report::value32), load_be16(entry, range_report::value16));
    }
    return std::nullopt;
}

namespace {

struct generic_sub_command {
    uint16_t code;
    uint16_t smallest; // total_len that it is recognised by; otherwise the servers get it
    uint16_t largest;
    size_t (*extent)(uint16_t total_len); // bytes of the message that the handler reads
    done (*handle)(link_frame&, const payload_message&);
};

} // namespace

static constexpr uint16_t any_length = 0xFFFF;
static constexpr generic_sub_command sub_commands[] = {
    {GENERIC_REQ_RouteRequest, route_request::least_len, any_length,
     [](uint16_t total_len) { return route_request_extent(route_requesters(total_len)); },
     answer_route_request},
    {GENERIC_REQ_OtaPage, ota_page::total_len, ota_page::total_len, [](uint16_t) { return ota_page::size; },
     answer_ota_page},
    {GENERIC_REQ_UltdoaData, ul_tdoa::least_len, any_length, ul_tdoa_extent, publish_ul_tdoa},
    {GENERIC_REQ_RangeRpt, range_report::least_len, any_length,
     [](uint16_t total_len) {
         return range_report::entries + range_report_entries(total_len) * range_report::entry_size;
     },
     print_range_report},
};

static const generic_sub_command* find_sub_command(uint16_t code, uint16_t total_len)
{
    for (const auto& sub : sub_commands)
        if (sub.code == code && total_len >= sub.smallest && total_len <= sub.largest)
            return &sub;
    return nullptr;
}

message_outcome handle_generic_server_req(link_frame& frame)
{
    payload_message message; // large, and filled as far as it is used
    if (!open_message(frame, generic_length_limit, message))
        return message_outcome::wrong_size;
    if (const auto refusal = identify_sender(frame, message))
        return *refusal;
    dbg_print_ts(frame.server.dbg_client_sock, frame.input_time, DBG_PARSING, "SLIP",
                 "MSG_GENERIC_SERVER_REQ: [%d] in_buf_size:%d  src:%02X%02X", frame.type & 0xFF,
                 message.total_len, message.short_mac[0], message.short_mac[1]);

    // From the message itself: where the length has wrapped, the copy's sub-command is overwritten.
    const uint16_t code = load_be16(frame.msg, generic_server_request::sub_command);
    if (const generic_sub_command* sub = find_sub_command(code, message.total_len)) {
        if (sub->extent(message.total_len) > frame.msg.size())
            return message_outcome::wrong_size;
        if (const done outcome = sub->handle(frame, message))
            return *outcome;
    }
    return frame.to_msg_handler({message.copy, message.copy_size});
}

} // namespace rtls
