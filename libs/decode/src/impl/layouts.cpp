#include "impl/layouts.h"

#include "wire/messaging.h"
#include "wire/node_commands.h"

#include <algorithm>
#include <array>

namespace rtls::decode::table {

// --- how a part is written down

static constexpr std::string_view mm = "mm";
static constexpr std::string_view seconds_unit = "s";

static constexpr part number(std::string_view name, size_t at, size_t width, byte_order order,
                             std::string_view unit = {})
{
    return {.as = form::number, .name = name, .at = at, .width = width, .order = order, .unit = unit};
}

static constexpr part u8(std::string_view name, size_t at, std::string_view unit = {})
{
    return number(name, at, 1, byte_order::none, unit);
}

static constexpr part signed_word(std::string_view name, size_t at, byte_order order,
                                  std::string_view unit = {})
{
    return {.as = form::signed_number, .name = name, .at = at, .width = 4, .order = order, .unit = unit};
}

static constexpr part identifier(std::string_view name, size_t at, size_t width, byte_order order)
{
    return {.as = form::hex_number, .name = name, .at = at, .width = width, .order = order};
}

static constexpr part raw(std::string_view name, size_t at, size_t width)
{
    return {.as = form::hex, .name = name, .at = at, .width = width};
}

static constexpr part mac(std::string_view name, size_t at = anywhere)
{
    return raw(name, at, mac_size);
}

static constexpr part short_address(std::string_view name, size_t at)
{
    return raw(name, at, six_byte_mac);
}

static constexpr part ip(std::string_view name, size_t at = anywhere)
{
    return {.as = form::ip, .name = name, .at = at, .width = ip_addr_size};
}

static constexpr part ip4(std::string_view name, size_t at)
{
    return {.as = form::ip, .name = name, .at = at, .width = 4};
}

static constexpr part role(size_t at)
{
    return {.as = form::role, .name = "node_role", .at = at, .width = 1};
}

static constexpr part length(std::string_view name, size_t at, byte_order order, size_t beside = 0)
{
    return {.as = form::length,
            .name = name,
            .at = at,
            .width = 2,
            .order = order,
            .unit = "bytes",
            .beside = beside};
}

static constexpr part variable(form as, std::string_view name)
{
    return {.as = as, .name = name};
}

static constexpr part message_of(const message_set& set)
{
    return {.as = form::message, .name = "message", .messages = &set};
}

static constexpr part body_of(std::span<const body_layout> bodies)
{
    return {.as = form::body, .name = "sub_command", .bodies = bodies};
}

static constexpr part list(std::string_view name, std::span<const part> entry)
{
    return {.as = form::entries, .name = name, .entry = entry};
}

static constexpr part from_here_if(size_t bytes)
{
    return {.as = form::optional, .name = {}, .width = bytes};
}

static constexpr part seq_no = u8("seqNo", msgHeader_t::seqNo);
static constexpr part seq_no_of_record = u8("seqNo", msgGeneric_t::seqNo);
static constexpr part data = variable(form::data, "data");
static constexpr part extra = variable(form::rest, "extra");
static constexpr part payload_rest = variable(form::rest, "payload_rest");

// Whether the parts follow one another from `end` on, up to the first whose length varies.
template <size_t Size>
static constexpr bool is_filled(const std::array<part, Size>& parts, size_t end)
{
    for (const part& p : parts) {
        if (p.as == form::optional)
            continue;
        if (p.at == anywhere)
            return true;
        if (p.at != end)
            return false;
        end += p.width;
    }
    return true;
}

// Where a message's parts begin: behind its type.
static constexpr size_t behind_type = 2;
static constexpr size_t behind_sub_command = generic_server_request::body;

// --- the bodies of generic requests

static constexpr std::array route_entry = {short_address("mac", route_request::mac),
                                           raw("mac_skipped", route_request::mac_skipped, 1),
                                           u8("lqi", route_request::lqi)};
static_assert(is_filled(route_entry, 0));

static constexpr std::array route_parts = {short_address("reporter", route_request::reporter),
                                           raw("reporter_skipped", route_request::reporter_skipped, 2),
                                           list("requesters", route_entry), payload_rest};
static_assert(is_filled(route_parts, behind_sub_command));

static constexpr std::array range_entry = {raw("short_mac", range_report::short_mac, 2),
                                           number("distance", range_report::value32, 4, byte_order::big, mm),
                                           number("quality", range_report::value16, 2, byte_order::big)};
static_assert(is_filled(range_entry, 0));

static constexpr std::array range_parts = {list("ranges", range_entry), payload_rest};

static constexpr std::array page_request_parts = {
    identifier("git_id", ota_page::git_id, 4, byte_order::big),
    identifier("crc32", ota_page::crc32, 4, byte_order::big),
    number("page_size", ota_page::page_size, 2, byte_order::big, "bytes"),
    number("page_number", ota_page::page_number, 2, byte_order::big)};
static_assert(is_filled(page_request_parts, behind_sub_command));

// The length of the page counts what follows the number behind it.
static constexpr std::array page_parts = {identifier("git_id", ota_page::git_id, 4, byte_order::big),
                                          identifier("crc32", ota_page::crc32, 4, byte_order::big),
                                          length("page_size", ota_page::page_size, byte_order::big),
                                          number("page_number", ota_page::page_number, 2, byte_order::big),
                                          variable(form::data, "page")};
static_assert(is_filled(page_parts, behind_sub_command));

static constexpr std::array ul_tdoa_parts = {
    short_address("tag_mac", ul_tdoa::tag_mac),
    number("pe_seq_no", ul_tdoa::pe_seq_no, 2, byte_order::big),
    short_address("responder_mac", ul_tdoa::responder_mac),
    short_address("reporter_mac", ul_tdoa::reporter_mac),
    signed_word("range_mm", ul_tdoa::range_mm, byte_order::big, mm),
    u8("tag_lqi", ul_tdoa::tag_lqi),
    u8("resp_anchor_lqi", ul_tdoa::resp_anchor_lqi),
    from_here_if(ul_tdoa::board_len - ul_tdoa::least_len),
    u8("board_version", ul_tdoa::board_version),
    u8("board_revision", ul_tdoa::board_revision),
    identifier("flags", ul_tdoa::flags, 2, byte_order::big),
    identifier("firmware_id", ul_tdoa::firmware_id, 4, byte_order::big),
    number("batt_voltage", ul_tdoa::batt_voltage, 2, byte_order::big),
    from_here_if(ul_tdoa::charge_len - ul_tdoa::board_len),
    u8("percent_of_charge", ul_tdoa::percent_of_charge, "%"),
    payload_rest};
static_assert(is_filled(ul_tdoa_parts, behind_sub_command));

static constexpr std::array reboot_parts = {
    number("parameter_len", reboot_request::parameter_len, 2, byte_order::big, "bytes"),
    raw("parameter", reboot_request::parameter, 2)};
static_assert(is_filled(reboot_parts, behind_sub_command));

// Of the head the first two bytes are the sub-command.
static constexpr std::array set_parts = {
    raw("body_head", set_request::body_head + 2, 1),
    u8("description_size", set_request::description_size, "bytes"),
    identifier("git_ver", set_request::git_ver, 4, byte_order::big),
    identifier("crc32", set_request::crc32, 4, byte_order::big),
    number("image_size", set_request::image_size, 4, byte_order::big, "bytes"),
    from_here_if(set_request::source_size),
    raw("source", set_request::source, set_request::source_size)};
static_assert(is_filled(set_parts, behind_sub_command));

static constexpr uint16_t ota_set = load_be16(set_request_body_head, 0);

static constexpr body_layout bodies_up[] = {
    {"route_request", GENERIC_REQ_RouteRequest, route_parts},
    {"ota_page", GENERIC_REQ_OtaPage, page_request_parts},
    {"ul_tdoa", GENERIC_REQ_UltdoaData, ul_tdoa_parts},
    {"range_report", GENERIC_REQ_RangeRpt, range_parts},
};
static constexpr body_layout bodies_down[] = {
    {"reboot", GENERIC_REQ_Reboot, reboot_parts},
    {"ota_set", ota_set, set_parts},
    {"ota_page", GENERIC_REQ_OtaPage, page_parts},
    {"ota_apply", GENERIC_REQ_OtaApply, {}},
};

// --- up

static constexpr gwCmdID_t both_flags = msg_flag_ack_requested | msg_flag_direct_mask;

static constexpr std::array ping_parts = {seq_no_of_record, data};
static constexpr std::array unhandled_parts = {data};

static constexpr std::array panid_parts = {seq_no_of_record,
                                           mac("ieee_addr", gwMsgPrefixRequest_t::ieee_addr)};
static_assert(is_filled(panid_parts, behind_type));

static constexpr std::array root_parts = {
    seq_no_of_record, mac("ieee_addr", gwMsgRootAnnounce_t::ieee_addr),
    identifier("rplPrefix", gwMsgRootAnnounce_t::rplPrefix, 2, byte_order::little),
    u8("rpl_version", gwMsgRootAnnounce_t::rpl_version)};
static_assert(is_filled(root_parts, behind_type));

using heartbeat = gwMsgHeartbeat_t;

// As far as a bridge passes it on; it goes on with the names of the bridge and its address, or ends.
static constexpr auto heartbeat_parts(byte_order order)
{
    return std::to_array<part>(
        {seq_no_of_record, u8("reporting_freq", heartbeat::reporting_freq, seconds_unit),
         u8("ranging_freq", heartbeat::ranging_freq), role(heartbeat::node_role),
         u8("sublocation_id", heartbeat::sublocation_id), mac("long_addr", heartbeat::long_addr),
         mac("parent_addr", heartbeat::parent_addr),
         identifier("sw_version", heartbeat::sw_version, 4, order),
         signed_word("pos_X", heartbeat::pos_X, order), signed_word("pos_Y", heartbeat::pos_Y, order),
         signed_word("pos_Z", heartbeat::pos_Z, order)});
}

template <size_t One, size_t Other>
static constexpr std::array<part, One + Other> joined(const std::array<part, One>& one,
                                                      const std::array<part, Other>& other)
{
    std::array<part, One + Other> all{};
    std::copy(one.begin(), one.end(), all.begin());
    std::copy(other.begin(), other.end(), all.begin() + One);
    return all;
}

static constexpr auto forwarded_heartbeat = heartbeat_parts(byte_order::little);
static constexpr auto direct_heartbeat =
    joined(forwarded_heartbeat,
           std::to_array<part>({mac("bridge_mac", heartbeat::bridge_mac), ip("ipaddr", heartbeat::ipaddr)}));
static_assert(is_filled(direct_heartbeat, behind_type));

static constexpr part total_len_up = length("total_len", msgHeader_t::total_len, byte_order::little);

static constexpr std::array forwarded_generic = {seq_no, total_len_up, body_of(bodies_up), extra};
static constexpr std::array direct_generic = {seq_no, total_len_up, body_of(bodies_up), ip("ipaddr"), extra};
static constexpr std::array forwarded_sensor = {seq_no, total_len_up, data, extra};
static constexpr std::array direct_sensor = {seq_no, total_len_up, data, ip("ipaddr"), extra};
static_assert(is_filled(direct_generic, behind_type));

static constexpr message_layout forwarded_rows[] = {
    {"heartbeat", MSG_HEARTBEAT_IND, both_flags, 0, forwarded_heartbeat},
    {"node_announce", MSG_NODE_ANNOUNCE_IND, both_flags, 0, forwarded_heartbeat},
    {"generic_server_req", MSG_GENERIC_SERVER_REQ, both_flags, 0, forwarded_generic},
    {"sensor", MSG_SENSOR_IND_NEW, both_flags, 0, forwarded_sensor},
};
static constexpr message_set forwarded_messages = {{}, byte_order::little, true, forwarded_rows};

static constexpr std::array envelope_parts = {seq_no, total_len_up, message_of(forwarded_messages),
                                              mac("mac"), ip("ipaddr")};

// Ranges of numbers that bit 13 has a share in: they come before those that it would be a flag of.
static constexpr message_layout timed_rows[] = {
    {"range_req", MSG_RANGE_REQ, msg_flag_ack_requested, 0, unhandled_parts},
    {"range_resp", MSG_RANGE_RESP, msg_flag_ack_requested, 0, unhandled_parts},
    {"ping", MSG_PING, 0, 0, ping_parts}, // with a flag it is not echoed
    {"nwk_data_ind", MSG_NWK_DATA_15_4_IND, both_flags, nwk_data_ind::least_size, envelope_parts},
    {"trf2srv_via_client", MSG_TRF2SRV_VIA_CLIENT, both_flags, nwk_data_ind::least_size, envelope_parts},
    {"panid_req", MSG_PANID_REQ, both_flags, 0, panid_parts},
    {"announce_root", MSG_ANNOUNCE_ROOT_IND, both_flags, 0, root_parts},
    {"heartbeat", MSG_HEARTBEAT_IND, both_flags, 0, direct_heartbeat},
    {"node_announce", MSG_NODE_ANNOUNCE_IND, both_flags, 0, direct_heartbeat},
    {"generic_server_req", MSG_GENERIC_SERVER_REQ, both_flags, 0, direct_generic},
    {"sensor", MSG_SENSOR_IND_NEW, both_flags, 0, direct_sensor},
    {"panid_resp", MSG_PANID_RESP, both_flags, 0, unhandled_parts},
    {"sensor_ind", MSG_SENSOR_IND, both_flags, 0, unhandled_parts},
    {"video_resp", MSG_VIDEO_RESP, both_flags, 0, unhandled_parts},
    {"mobile_pos_ind", MSG_MOBILE_POS_IND, both_flags, 0, unhandled_parts},
    {"video_ack", MSG_VIDEO_ACK, both_flags, 0, unhandled_parts},
    {"update_req", MSG_UPDATE_REQ, both_flags, 0, unhandled_parts},
    {"emergency_ind", MSG_EMERGENCY_IND, both_flags, 0, unhandled_parts},
    {"range_report_ind", MSG_RANGE_REPORT_IND, both_flags, 0, unhandled_parts},
    {"mobile_pos_ind_new", MSG_MOBILE_POS_IND_NEW, both_flags, 0, unhandled_parts},
    {"video_req", MSG_VIDEO_REQ, both_flags, 0, unhandled_parts},
    {"diag_req", MSG_DIAG_REQ, both_flags, 0, unhandled_parts},
    {"link_qual_req", MSG_LINK_QUAL_REQ, both_flags, 0, unhandled_parts},
    {"link_qual_resp", MSG_LINK_QUAL_RESP, both_flags, 0, unhandled_parts},
    {"loopback_req", MSG_LOOPBACK_REQ, both_flags, 0, unhandled_parts},
    {"loopback_resp", MSG_LOOPBACK_RESP, both_flags, 0, unhandled_parts},
};
static constexpr message_set timed_messages = {{}, byte_order::little, true, timed_rows};

static constexpr part wrapper_length =
    number("total_len", msgHeader_t::total_len, 2, byte_order::little, "bytes");
static constexpr part wrapper_seconds = number("seconds", wrap_ts::seconds, 4, byte_order::big, seconds_unit);
static constexpr part wrapper_fraction =
    number("fraction", wrap_ts::fraction, 2, byte_order::big, "1/65536 s");

// Nobody looks at the length of this one.
static constexpr std::array wrap_ts_parts = {seq_no, wrapper_length, wrapper_seconds, wrapper_fraction,
                                             message_of(timed_messages)};
static_assert(is_filled(wrap_ts_parts, behind_type));

static constexpr message_layout wrap_ts_row = {"wrap_ts", MSG_WRAP_TS, 0, wrap_ts::least_frame,
                                               wrap_ts_parts};

template <size_t Size>
static constexpr std::array<message_layout, Size + 1> with_row(const message_layout (&rows)[Size],
                                                               const message_layout& row)
{
    std::array<message_layout, Size + 1> all{};
    std::copy(rows, rows + Size, all.begin());
    all.back() = row;
    return all;
}

static constexpr auto up_rows = with_row(timed_rows, wrap_ts_row);
static constexpr message_set up_messages = {{}, byte_order::little, true, up_rows};

// --- down

using config = gwMsgConfigNode_t;

// Up to where the configuration ends and the address of its node begins.
static constexpr auto config_parts(byte_order order)
{
    return std::to_array<part>(
        {u8("reporting_freq", config::reporting_freq, seconds_unit), u8("ranging_freq", config::ranging_freq),
         role(config::node_role), u8("sublocation_id", config::sublocation_id),
         signed_word("pos_X", config::pos_X, order), signed_word("pos_Y", config::pos_Y, order),
         signed_word("pos_Z", config::pos_Z, order)});
}

static constexpr auto wrapped_config = config_parts(byte_order::by_role);
static constexpr auto direct_config =
    joined(wrapped_config, std::to_array<part>({ip("ipaddr", config::ipaddr)}));
static_assert(is_filled(direct_config, behind_type));

static constexpr part total_len_down = length("total_len", msgHeader_t::total_len, byte_order::big);

static constexpr std::array wrapped_generic = {seq_no, total_len_down, body_of(bodies_down)};
static constexpr std::array wrapped_payload = {seq_no, total_len_down, data};
static constexpr std::array direct_request = {seq_no, total_len_down, body_of(bodies_down), ip("ipaddr")};
static constexpr std::array direct_payload = {seq_no, total_len_down, data, ip("ipaddr")};

static constexpr message_layout wrapped_rows[] = {
    {"conf_node_req", MSG_CONF_NODE_REQ, 0, 0, wrapped_config},
    {"generic_req", MSG_GENERIC_REQ, 0, 0, wrapped_generic},
    {"sensor_req", MSG_SENSOR_REQ, 0, 0, wrapped_payload},
    {"conf_sensor_req", MSG_CONF_SENSOR_REQ, 0, 0, wrapped_payload},
    {"tdoa_sched_conf_req", MSG_TDOA_SCHED_CONF_REQ, 0, 0, wrapped_payload},
};
static constexpr message_set wrapped_messages = {{}, byte_order::little, false, wrapped_rows};

// What a block has beside the bytes that its length counts.
static constexpr size_t opaque_beside = network_data::overhead - network_data::opaque;
static constexpr part block_length = length("p_len", network_data::p_len, byte_order::big, opaque_beside);
static constexpr part opaque = variable(form::data, "opaque");

static constexpr std::array block_parts = {u8("seqNo", network_data::seqNo), block_length, opaque};
static_assert(is_filled(block_parts, behind_type));
static constexpr message_layout block_rows[] = {{"nwk_data_req", MSG_NWK_DATA_15_4_REQ, 0, 0, block_parts}};
static constexpr message_set block_messages = {{}, byte_order::little, false, block_rows};

// A wrapped command; a wrapped block, which has no MAC in its wrapper; a block as it is.
static constexpr std::array wrapper_parts = {seq_no, total_len_down, message_of(wrapped_messages), mac("mac"),
                                             ip("ipaddr")};
static constexpr std::array block_wrapper_parts = {seq_no, total_len_down, message_of(block_messages),
                                                   ip("ipaddr")};
static constexpr std::array direct_block = joined(block_parts, std::to_array<part>({ip("ipaddr")}));

static constexpr std::array panid_answer_parts = {
    identifier("rplPrefix", gwMsgVrPrefixResponse_t::rplPrefix, 2, byte_order::little),
    u8("rpl_version", gwMsgVrPrefixResponse_t::rpl_version)};
static_assert(is_filled(panid_answer_parts, behind_type));

static constexpr std::array update_parts = {seq_no_of_record};
static constexpr std::array ack_parts = {u8("seqNo", gwMsgAck_t::seqNo), ip("ipaddr", gwMsgAck_t::ipaddr)};
static_assert(is_filled(ack_parts, behind_type));

// An echo: whatever the bridge has sent in its envelope of time.
static constexpr message_layout ping_rows[] = {{"ping", MSG_PING, 0, 0, ping_parts}};
static constexpr message_set echoed_messages = {{}, byte_order::little, false, ping_rows};
static constexpr std::array echoed_wrap_ts_parts = {seq_no, wrapper_length, wrapper_seconds, wrapper_fraction,
                                                    message_of(echoed_messages)};

static constexpr message_layout down_rows[] = {
    {"ping", MSG_PING, 0, 0, ping_parts},
    {"wrap_ts", MSG_WRAP_TS, 0, wrap_ts::least_frame, echoed_wrap_ts_parts},
    {"vr_panid_resp", MSG_VR_PANID_RESP, 0, 0, panid_answer_parts},
    {"update_cmd", MSG_UPDATE_CMD, 0, 0, update_parts},
    {"rest_ack", MSG_REST_ACK, 0, 0, ack_parts},
    {"conf_node_req", MSG_CONF_NODE_REQ, 0, 0, direct_config},
    {"generic_req", MSG_GENERIC_REQ, 0, 0, direct_request},
    {"sensor_req", MSG_SENSOR_REQ, 0, 0, direct_payload},
    {"conf_sensor_req", MSG_CONF_SENSOR_REQ, 0, 0, direct_payload},
    {"tdoa_sched_conf_req", MSG_TDOA_SCHED_CONF_REQ, 0, 0, direct_payload},
    {"nwk_data_req", MSG_NWK_DATA_15_4_REQ, msg_flag_direct_mask, 0, wrapper_parts},
    {"nwk_data_req", MSG_NWK_DATA_15_4_REQ, msg_flag_direct_mask, 0, block_wrapper_parts},
    {"nwk_data_req", MSG_NWK_DATA_15_4_REQ, 0, 0, direct_block},
};
static constexpr message_set down_messages = {{}, byte_order::little, false, down_rows};

// --- commands

static constexpr auto image_parts(std::string_view identifier_name, size_t at, size_t crc_at, size_t len_at)
{
    return std::to_array<part>({identifier(identifier_name, at, 4, byte_order::big),
                                identifier("crc32", crc_at, 4, byte_order::big),
                                length("len", len_at, byte_order::big), variable(form::text, "url")});
}

static constexpr auto upload_parts =
    image_parts("git_ver", ota_upload::git_ver, ota_upload::crc32, ota_upload::len);
static constexpr auto announced_parts = image_parts(
    "sh1", gwMsgFwImageAvailInd_t::sh1, gwMsgFwImageAvailInd_t::crc32, gwMsgFwImageAvailInd_t::len);
static_assert(is_filled(upload_parts, behind_type) && is_filled(announced_parts, behind_type));

static constexpr std::array network_data_parts = joined(block_parts, std::to_array<part>({mac("mac")}));
static constexpr auto server_config = joined(
    config_parts(byte_order::big), std::to_array<part>({mac("long_addr", srvMsgConfigNode_t::long_addr)}));
static_assert(is_filled(server_config, behind_type));
// The two records are the same up to there.
static_assert(srvMsgConfigNode_t::pos_Z == config::pos_Z &&
              srvMsgConfigNode_t::node_role == config::node_role);

static constexpr std::array generic_command = {seq_no, total_len_down, body_of(bodies_down), mac("mac")};
static constexpr std::array payload_command = {seq_no, total_len_down, data, mac("mac")};
static constexpr std::array server_ack = {u8("seqNo", srvMsgAck_t::seqNo),
                                          mac("long_addr", srvMsgAck_t::long_addr)};
static_assert(is_filled(server_ack, behind_type));

static constexpr message_layout command_rows[] = {
    {"ota_upload_fw", MSG_OTA_UPLOAD_FW, 0, ota_upload::size + 1, upload_parts},
    {"fw_image_avail_ind", MSG_FW_IMAGE_AVAIL_IND, 0, gwMsgFwImageAvailInd_t::size + 2, announced_parts},
    {"nwk_data_req", MSG_NWK_DATA_15_4_REQ, 0, 0, network_data_parts},
    {"conf_node_req", MSG_CONF_NODE_REQ, 0, 0, server_config},
    {"generic_req", MSG_GENERIC_REQ, 0, 0, generic_command},
    {"rest_ack", MSG_REST_ACK, 0, 0, server_ack},
    {"sensor_req", MSG_SENSOR_REQ, 0, 0, payload_command},
    {"conf_sensor_req", MSG_CONF_SENSOR_REQ, 0, 0, payload_command},
    {"tdoa_sched_conf_req", MSG_TDOA_SCHED_CONF_REQ, 0, 0, payload_command},
};
static constexpr message_set command_messages = {{}, byte_order::big, true, command_rows};

// --- reports

static constexpr part up_to_999(part milliseconds)
{
    milliseconds.least = 0;
    milliseconds.most = 999;
    return milliseconds;
}

static constexpr std::array report_head = {
    number("seconds", report_timestamp::seconds, 4, byte_order::big, seconds_unit),
    up_to_999(number("milliseconds", report_timestamp::milliseconds, 2, byte_order::big, "ms"))};
static_assert(is_filled(report_head, 0));

// Without what stays at the gateway: the version, the address.
static constexpr std::array root_report = {
    seq_no_of_record, mac("ieee_addr", gwMsgRootAnnounce_t::ieee_addr),
    identifier("rplPrefix", gwMsgRootAnnounce_t::rplPrefix, 2, byte_order::big)};
static constexpr auto heartbeat_report =
    joined(heartbeat_parts(byte_order::big), std::to_array<part>({mac("bridge_mac", heartbeat::bridge_mac)}));
static constexpr std::array generic_report = {seq_no, total_len_down, body_of(bodies_up), mac("mac")};
static constexpr std::array sensor_report = {seq_no, total_len_down, data, mac("mac")};
static_assert(is_filled(root_report, behind_type) && is_filled(heartbeat_report, behind_type));

static constexpr message_layout report_rows[] = {
    {"announce_root", MSG_ANNOUNCE_ROOT_IND, 0, 0, root_report},
    {"heartbeat", MSG_HEARTBEAT_IND, 0, 0, heartbeat_report},
    {"node_announce", MSG_NODE_ANNOUNCE_IND, 0, 0, heartbeat_report},
    {"generic_server_req", MSG_GENERIC_SERVER_REQ, 0, 0, generic_report},
    {"sensor", MSG_SENSOR_IND_NEW, 0, 0, sensor_report},
};
static constexpr message_set report_messages = {report_head, byte_order::big, true, report_rows};

// --- discovery

static constexpr part command_number()
{
    part command = u8("command", discovery_address::command);
    command.least = command.most = DSC_CMD_REQUEST_ADDRESS;
    return command;
}

static constexpr size_t choice_size = discovery_address::request_size - discovery_address::choice;
static constexpr std::array echo_request = {raw("content", 0, discovery_echo::request_size)};
static constexpr std::array address_request = {command_number(),
                                               raw("choice", discovery_address::choice, choice_size)};
static constexpr std::array echo_answer = {ip4("address", discovery_echo::address),
                                           number("port", discovery_echo::port, 2, byte_order::big)};
static constexpr std::array address_answer = joined(
    address_request, std::to_array<part>({ip4("address", discovery_address::address),
                                          number("port", discovery_address::port, 2, byte_order::big)}));
static_assert(is_filled(address_answer, 0) && is_filled(echo_answer, 0));

static constexpr message_layout discovery_request_rows[] = {{"discovery_echo", 0, 0, 0, echo_request},
                                                            {"discovery_address", 0, 0, 0, address_request}};
static constexpr message_layout discovery_answer_rows[] = {{"discovery_echo", 0, 0, 0, echo_answer},
                                                           {"discovery_address", 0, 0, 0, address_answer}};
static constexpr message_set discovery_requests = {{}, byte_order::none, false, discovery_request_rows};
static constexpr message_set discovery_answers = {{}, byte_order::none, false, discovery_answer_rows};

} // namespace rtls::decode::table

// --- look-up

namespace rtls::decode {

const message_set& messages_of(direction way)
{
    switch (way) {
    case direction::down:
        return table::down_messages;
    case direction::command:
        return table::command_messages;
    case direction::report:
        return table::report_messages;
    case direction::discovery_request:
        return table::discovery_requests;
    case direction::discovery_answer:
        return table::discovery_answers;
    default:
        return table::up_messages;
    }
}

std::span<const body_layout> bodies_of(direction way)
{
    using rows = std::span<const body_layout>;
    return way == direction::down || way == direction::command ? rows{table::bodies_down}
                                                               : rows{table::bodies_up};
}

static const body_layout* find_body(auto matches)
{
    for (const direction way : {direction::up, direction::down})
        for (const body_layout& row : bodies_of(way))
            if (matches(row))
                return &row;
    return nullptr;
}

std::string_view sub_command_name(uint16_t code)
{
    const body_layout* row = find_body([&](const body_layout& body) { return body.code == code; });
    return row ? row->name : std::string_view{};
}

int sub_command_of(std::string_view name)
{
    const body_layout* row = find_body([&](const body_layout& body) { return body.name == name; });
    return row ? row->code : -1;
}

static constexpr std::array<std::string_view, NR_SENSOR + 1> role_names = {
    "undefined", "fixed", "mobile", "pending", "bridge", "tdoa-mobile", "sensor"};

std::string_view role_name(uint8_t role)
{
    return role < role_names.size() ? role_names[role] : std::string_view{};
}

int role_of(std::string_view name)
{
    const auto found = std::ranges::find(role_names, name);
    return found == role_names.end() ? -1 : static_cast<int>(found - role_names.begin());
}

} // namespace rtls::decode
