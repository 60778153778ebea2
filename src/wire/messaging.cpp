// The wire vocabulary, number by number. Peers in the field depend on every code and every byte, so a slip in
// messaging.h does not compile: each value once more, and each record's fields, which follow one another from
// its first byte up to its end.
#include "wire/messaging.h"

#include <initializer_list>
#include <type_traits>

namespace rtls {

// --- The values

static_assert(MSG_PING == 0x0000);
static_assert(MSG_OTA_UPLOAD_FW == 0x0012);
static_assert(MSG_NWK_DATA_15_4_IND == 0x0100);
static_assert(MSG_PANID_REQ == 0x0101);
static_assert(MSG_PANID_RESP == 0x0102);
static_assert(MSG_ANNOUNCE_ROOT_IND == 0x0103);
static_assert(MSG_HEARTBEAT_IND == 0x0104);
static_assert(MSG_SENSOR_IND == 0x0106);
static_assert(MSG_VIDEO_RESP == 0x0107);
static_assert(MSG_MOBILE_POS_IND == 0x010C);
static_assert(MSG_GENERIC_SERVER_REQ == 0x010E);
static_assert(MSG_NODE_ANNOUNCE_IND == 0x010F);
static_assert(MSG_SENSOR_IND_NEW == 0x0116);
static_assert(MSG_VIDEO_ACK == 0x0117);
static_assert(MSG_UPDATE_CMD == 0x0118);
static_assert(MSG_UPDATE_REQ == 0x0119);
static_assert(MSG_EMERGENCY_IND == 0x011A);
static_assert(MSG_WRAP_TS == 0x0200);
static_assert(MSG_RANGE_REPORT_IND == 0x0205);
static_assert(MSG_MOBILE_POS_IND_NEW == 0x020C);
static_assert(MSG_NWK_DATA_15_4_REQ == 0x0800);
static_assert(MSG_CONF_NODE_REQ == 0x0804);
static_assert(MSG_VIDEO_REQ == 0x0807);
static_assert(MSG_DIAG_REQ == 0x0808);
static_assert(MSG_LINK_QUAL_REQ == 0x0809);
static_assert(MSG_LINK_QUAL_RESP == 0x080A);
static_assert(MSG_LOOPBACK_REQ == 0x080B);
static_assert(MSG_LOOPBACK_RESP == 0x080C);
static_assert(MSG_DIAG_RESP == 0x080D);
static_assert(MSG_FW_IMAGE_AVAIL_IND == 0x080D);
static_assert(MSG_GENERIC_REQ == 0x080E);
static_assert(MSG_REST_ACK == 0x0810);
static_assert(MSG_SENSOR_REQ == 0x0815);
static_assert(MSG_CONF_SENSOR_REQ == 0x0816);
static_assert(MSG_TDOA_SCHED_CONF_REQ == 0x0817);
static_assert(MSG_TRF2SRV_VIA_CLIENT == 0x0A00);
static_assert(MSG_RANGE_REQ == 0x2107);
static_assert(MSG_RANGE_RESP == 0x2207);
static_assert(MSG_VR_PANID_RESP == 0x8102);
static_assert(msg_flag_ack_requested == 0x1000 && msg_flag_direct_mask == 0x2000);

static_assert(GENERIC_REQ_Reboot == 1);
static_assert(GENERIC_REQ_RouteRequest == 10);
static_assert(GENERIC_REQ_OtaPage == 16);
static_assert(GENERIC_REQ_OtaApply == 17);
static_assert(GENERIC_REQ_UltdoaData == 40);
static_assert(GENERIC_REQ_RangeRpt == 48);

static_assert(NR_UNDEF == 0 && NR_FIXED == 1 && NR_MOBILE == 2 && NR_CONF_PENDING == 3);
static_assert(NR_BRIDGE == 4 && NR_TDOA_MOBILE == 5 && NR_SENSOR == 6);
static_assert(UNDEF_FIRMWARE == 0 && ENO_FIRMWARE == 1 && EOF_FIRMWARE == 2);
static_assert(CRC_FIRMWARE == 3 && IGET_FIRMWARE == 4);
static_assert(DSC_CMD_REQUEST_ADDRESS == 1);

static_assert(std::is_same_v<SeqNo_t, uint8_t> && std::is_same_v<rplPrefix_t, uint16_t>);
static_assert(std::is_same_v<gwCmdID_t, uint16_t>);
static_assert(std::is_same_v<obnCmdID_t, uint16_t>);
static_assert(sizeof(MSG_CODE) == 2 && sizeof(GENERIC_REQ) == 2);
static_assert(sizeof(NODE_ROLE) == 1 && sizeof(GW2BR_FLAGS) == 1);
static_assert(sizeof(winserw_sock_cmd_t) == 4);

// --- The records

namespace layout {

struct field {
    size_t at;
    size_t width;
};

constexpr bool is_filled(size_t size, std::initializer_list<field> fields)
{
    size_t end = 0;
    for (const field& f : fields) {
        if (f.at != end)
            return false;
        end += f.width;
    }
    return end == size;
}

constexpr size_t mac = mac_size;
constexpr size_t ip = ip_addr_size;

} // namespace layout

static_assert(layout::is_filled(
    msgHeader_t::size, {{msgHeader_t::msgType, 2}, {msgHeader_t::seqNo, 1}, {msgHeader_t::total_len, 2}}));
static_assert(layout::is_filled(msgGeneric_t::size, {{msgGeneric_t::msgType, 2}, {msgGeneric_t::seqNo, 1}}));
static_assert(layout::is_filled(gwMsgGeneric_t::size,
                                {{gwMsgGeneric_t::msgType, 2}, {gwMsgGeneric_t::seqNo, 1}}));
static_assert(layout::is_filled(gwMsgPrefixRequest_t::size,
                                {{gwMsgPrefixRequest_t::header, gwMsgGeneric_t::size},
                                 {gwMsgPrefixRequest_t::ieee_addr, layout::mac}}));
static_assert(layout::is_filled(gwMsgVrPrefixResponse_t::size, {{gwMsgVrPrefixResponse_t::msgType, 2},
                                                                {gwMsgVrPrefixResponse_t::rplPrefix, 2},
                                                                {gwMsgVrPrefixResponse_t::rpl_version, 1}}));
static_assert(layout::is_filled(gwMsgRootAnnounce_t::size,
                                {{gwMsgRootAnnounce_t::header, gwMsgGeneric_t::size},
                                 {gwMsgRootAnnounce_t::ieee_addr, layout::mac},
                                 {gwMsgRootAnnounce_t::rplPrefix, 2},
                                 {gwMsgRootAnnounce_t::rpl_version, 1}}));
static_assert(layout::is_filled(gwMsgHeartbeat_t::size, {{gwMsgHeartbeat_t::header, msgGeneric_t::size},
                                                         {gwMsgHeartbeat_t::reporting_freq, 1},
                                                         {gwMsgHeartbeat_t::ranging_freq, 1},
                                                         {gwMsgHeartbeat_t::node_role, 1},
                                                         {gwMsgHeartbeat_t::sublocation_id, 1},
                                                         {gwMsgHeartbeat_t::long_addr, layout::mac},
                                                         {gwMsgHeartbeat_t::parent_addr, layout::mac},
                                                         {gwMsgHeartbeat_t::sw_version, 4},
                                                         {gwMsgHeartbeat_t::pos_X, 4},
                                                         {gwMsgHeartbeat_t::pos_Y, 4},
                                                         {gwMsgHeartbeat_t::pos_Z, 4},
                                                         {gwMsgHeartbeat_t::bridge_mac, layout::mac},
                                                         {gwMsgHeartbeat_t::ipaddr, layout::ip}}));
static_assert(gwMsgHeartbeat_t::z_val == gwMsgHeartbeat_t::pos_Z &&
              gwMsgHeartbeat_t::z_offset == gwMsgHeartbeat_t::z_val + 2);
static_assert(layout::is_filled(gwMsgConfigNode_t::size, {{gwMsgConfigNode_t::msgType, 2},
                                                          {gwMsgConfigNode_t::reporting_freq, 1},
                                                          {gwMsgConfigNode_t::ranging_freq, 1},
                                                          {gwMsgConfigNode_t::node_role, 1},
                                                          {gwMsgConfigNode_t::sublocation_id, 1},
                                                          {gwMsgConfigNode_t::pos_X, 4},
                                                          {gwMsgConfigNode_t::pos_Y, 4},
                                                          {gwMsgConfigNode_t::pos_Z, 4},
                                                          {gwMsgConfigNode_t::ipaddr, layout::ip}}));
static_assert(gwMsgConfigNode_t::z_val == gwMsgConfigNode_t::pos_Z &&
              gwMsgConfigNode_t::z_offset == gwMsgConfigNode_t::z_val + 2);
static_assert(layout::is_filled(srvMsgConfigNode_t::size, {{srvMsgConfigNode_t::msgType, 2},
                                                           {srvMsgConfigNode_t::reporting_freq, 1},
                                                           {srvMsgConfigNode_t::ranging_freq, 1},
                                                           {srvMsgConfigNode_t::node_role, 1},
                                                           {srvMsgConfigNode_t::sublocation_id, 1},
                                                           {srvMsgConfigNode_t::pos_X, 4},
                                                           {srvMsgConfigNode_t::pos_Y, 4},
                                                           {srvMsgConfigNode_t::pos_Z, 4},
                                                           {srvMsgConfigNode_t::long_addr, layout::mac}}));
static_assert(layout::is_filled(
    gwMsgAck_t::size, {{gwMsgAck_t::msgType, 2}, {gwMsgAck_t::seqNo, 1}, {gwMsgAck_t::ipaddr, layout::ip}}));
static_assert(layout::is_filled(srvMsgAck_t::size, {{srvMsgAck_t::msgType, 2},
                                                    {srvMsgAck_t::seqNo, 1},
                                                    {srvMsgAck_t::long_addr, layout::mac}}));
static_assert(layout::is_filled(
    ota_upload::size,
    {{ota_upload::msgType, 2}, {ota_upload::git_ver, 4}, {ota_upload::crc32, 4}, {ota_upload::len, 2}}));
static_assert(layout::is_filled(gwMsgFwImageAvailInd_t::size, {{gwMsgFwImageAvailInd_t::msgType, 2},
                                                               {gwMsgFwImageAvailInd_t::sh1, 4},
                                                               {gwMsgFwImageAvailInd_t::crc32, 4},
                                                               {gwMsgFwImageAvailInd_t::len, 2}}));

static_assert(layout::is_filled(msgGenericReq_t::data, {{msgGenericReq_t::msgHeader, msgHeader_t::size}}));
static_assert(layout::is_filled(generic_server_request::body,
                                {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                 {generic_server_request::sub_command, 2}}));

static_assert(layout::is_filled(route_request::requesters, {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                                            {generic_server_request::sub_command, 2},
                                                            {route_request::reporter, six_byte_mac},
                                                            {route_request::reporter_skipped, 2}}));
static_assert(layout::is_filled(route_request::entry_size, {{route_request::mac, six_byte_mac},
                                                            {route_request::mac_skipped, 1},
                                                            {route_request::lqi, 1}}));
static_assert(route_request::fixed_len == 10 && route_request::least_len == 18);

static_assert(layout::is_filled(range_report::entries, {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                                        {generic_server_request::sub_command, 2}}));
static_assert(layout::is_filled(range_report::entry_size, {{range_report::short_mac, 2},
                                                           {range_report::value32, 4},
                                                           {range_report::value16, 2}}));
static_assert(range_report::fixed_len == 2 && range_report::least_len == 10);

static_assert(layout::is_filled(msgHeader_t::size + ul_tdoa::charge_len,
                                {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                 {generic_server_request::sub_command, 2},
                                 {ul_tdoa::tag_mac, six_byte_mac},
                                 {ul_tdoa::pe_seq_no, 2},
                                 {ul_tdoa::responder_mac, six_byte_mac},
                                 {ul_tdoa::reporter_mac, six_byte_mac},
                                 {ul_tdoa::range_mm, 4},
                                 {ul_tdoa::tag_lqi, 1},
                                 {ul_tdoa::resp_anchor_lqi, 1},
                                 {ul_tdoa::board_version, 1},
                                 {ul_tdoa::board_revision, 1},
                                 {ul_tdoa::flags, 2},
                                 {ul_tdoa::firmware_id, 4},
                                 {ul_tdoa::batt_voltage, 2},
                                 {ul_tdoa::percent_of_charge, 1}}));
static_assert(ul_tdoa::least_len == 28 && ul_tdoa::board_len == 38 && ul_tdoa::charge_len == 39);

static_assert(layout::is_filled(ota_page::size, {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                                 {ota_page::command, 2},
                                                 {ota_page::git_id, 4},
                                                 {ota_page::crc32, 4},
                                                 {ota_page::page_size, 2},
                                                 {ota_page::page_number, 2}}));
static_assert(ota_page::size == msgHeader_t::size + ota_page::total_len);
static_assert(layout::is_filled(reboot_request::size, {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                                       {reboot_request::command, 2},
                                                       {reboot_request::parameter_len, 2},
                                                       {reboot_request::parameter, 2},
                                                       {reboot_request::mac, layout::mac}}));
static_assert(layout::is_filled(apply_request::size, {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                                      {apply_request::command, 2},
                                                      {apply_request::mac, layout::mac}}));
static_assert(layout::is_filled(set_request::source + set_request::source_size,
                                {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                 {set_request::body_head, 3},
                                 {set_request::description_size, 1},
                                 {set_request::git_ver, 4},
                                 {set_request::crc32, 4},
                                 {set_request::image_size, 4},
                                 {set_request::source, 2}}));
static_assert(layout::is_filled(network_data::size, {{network_data::msgType, 2},
                                                     {network_data::seqNo, 1},
                                                     {network_data::p_len, 2},
                                                     {network_data::opaque, 8},
                                                     {network_data::overhead, layout::mac}}));

static_assert(layout::is_filled(nwk_data_ind::overhead - nwk_data_ind::inner,
                                {{nwk_data_ind::trailer_mac, layout::mac},
                                 {nwk_data_ind::trailer_ip, layout::ip}}));
static_assert(nwk_data_ind::inner == msgHeader_t::size && nwk_data_ind::least_size == 30);
static_assert(layout::is_filled(wrap_ts::size, {{msgGenericReq_t::msgHeader, msgHeader_t::size},
                                                {wrap_ts::seconds, 4},
                                                {wrap_ts::fraction, 2}}));
static_assert(wrap_ts::least_frame == 17);
static_assert(layout::is_filled(report_timestamp::size,
                                {{report_timestamp::seconds, 4}, {report_timestamp::milliseconds, 2}}));
static_assert(layout::is_filled(discovery_echo::size,
                                {{discovery_echo::address, 4}, {discovery_echo::port, 2}}));
static_assert(layout::is_filled(discovery_address::request_size,
                                {{discovery_address::command, 1}, {discovery_address::choice, 8}}));
static_assert(layout::is_filled(discovery_address::size, {{0, discovery_address::request_size},
                                                          {discovery_address::address, 4},
                                                          {discovery_address::port, 2}}));
static_assert(layout::is_filled(sizeof(gwMsgUpdateRequest_t), {{offsetof(gwMsgUpdateRequest_t, msgType), 2},
                                                               {offsetof(gwMsgUpdateRequest_t, flag), 1},
                                                               {offsetof(gwMsgUpdateRequest_t, ver), 4},
                                                               {offsetof(gwMsgUpdateRequest_t, num), 2},
                                                               {offsetof(gwMsgUpdateRequest_t, crc32), 4},
                                                               {offsetof(gwMsgUpdateRequest_t, len), 2},
                                                               {offsetof(gwMsgUpdateRequest_t, buf), 512}}));

// How long each is on the wire.
static_assert(msgHeader_t::size == 5 && msgGeneric_t::size == 3 && gwMsgGeneric_t::size == 3);
static_assert(gwMsgPrefixRequest_t::size == 11 && gwMsgVrPrefixResponse_t::size == 5);
static_assert(gwMsgRootAnnounce_t::size == 14 && gwMsgHeartbeat_t::size == 63);
static_assert(gwMsgConfigNode_t::size == 34 && srvMsgConfigNode_t::size == 26);
static_assert(gwMsgAck_t::size == 19 && srvMsgAck_t::size == 11);
static_assert(ota_upload::size == 12 && gwMsgFwImageAvailInd_t::size == 12);
static_assert(ota_page::size == 19 && reboot_request::size == 19 && apply_request::size == 15);
static_assert(network_data::size == 21 && nwk_data_ind::overhead == 29 && wrap_ts::size == 11);
static_assert(report_timestamp::size == 6 && discovery_echo::size == 6 && discovery_address::size == 15);
static_assert(sizeof(gwMsgUpdateRequest_t) == 527);

} // namespace rtls
