// The wire vocabulary, number by number: peers in the field depend on each of them.
#include "wire/messaging.h"

#include "base/bytes.h"
#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace rtls {

#define NAMED(name) name, #name

TEST(message_types, have_their_wire_values)
{
    const struct {
        unsigned type;
        const char* name;
        const char* on_the_wire; // little-endian
    } cases[] = {
        {NAMED(MSG_PING), "00 00"},
        {NAMED(MSG_OTA_UPLOAD_FW), "12 00"},
        {NAMED(MSG_NWK_DATA_15_4_IND), "00 01"},
        {NAMED(MSG_PANID_REQ), "01 01"},
        {NAMED(MSG_PANID_RESP), "02 01"},
        {NAMED(MSG_ANNOUNCE_ROOT_IND), "03 01"},
        {NAMED(MSG_HEARTBEAT_IND), "04 01"},
        {NAMED(MSG_SENSOR_IND), "06 01"},
        {NAMED(MSG_VIDEO_RESP), "07 01"},
        {NAMED(MSG_MOBILE_POS_IND), "0C 01"},
        {NAMED(MSG_GENERIC_SERVER_REQ), "0E 01"},
        {NAMED(MSG_NODE_ANNOUNCE_IND), "0F 01"},
        {NAMED(MSG_SENSOR_IND_NEW), "16 01"},
        {NAMED(MSG_VIDEO_ACK), "17 01"},
        {NAMED(MSG_UPDATE_CMD), "18 01"},
        {NAMED(MSG_UPDATE_REQ), "19 01"},
        {NAMED(MSG_EMERGENCY_IND), "1A 01"},
        {NAMED(MSG_WRAP_TS), "00 02"},
        {NAMED(MSG_RANGE_REPORT_IND), "05 02"},
        {NAMED(MSG_MOBILE_POS_IND_NEW), "0C 02"},
        {NAMED(MSG_NWK_DATA_15_4_REQ), "00 08"},
        {NAMED(MSG_CONF_NODE_REQ), "04 08"},
        {NAMED(MSG_VIDEO_REQ), "07 08"},
        {NAMED(MSG_DIAG_REQ), "08 08"},
        {NAMED(MSG_LINK_QUAL_REQ), "09 08"},
        {NAMED(MSG_LINK_QUAL_RESP), "0A 08"},
        {NAMED(MSG_LOOPBACK_REQ), "0B 08"},
        {NAMED(MSG_LOOPBACK_RESP), "0C 08"},
        {NAMED(MSG_DIAG_RESP), "0D 08"},
        {NAMED(MSG_FW_IMAGE_AVAIL_IND), "0D 08"},
        {NAMED(MSG_GENERIC_REQ), "0E 08"},
        {NAMED(MSG_REST_ACK), "10 08"},
        {NAMED(MSG_SENSOR_REQ), "15 08"},
        {NAMED(MSG_CONF_SENSOR_REQ), "16 08"},
        {NAMED(MSG_TDOA_SCHED_CONF_REQ), "17 08"},
        {NAMED(MSG_TRF2SRV_VIA_CLIENT), "00 0A"},
        {NAMED(MSG_RANGE_REQ), "07 21"},
        {NAMED(MSG_RANGE_RESP), "07 22"},
        {NAMED(MSG_VR_PANID_RESP), "02 81"},
    };
    for (const auto& c : cases) {
        bytes_t wire(2);
        store_le16(wire, 0, static_cast<uint16_t>(c.type));
        EXPECT_EQ(wire, hex(c.on_the_wire)) << c.name;
    }
    EXPECT_EQ(MSG_DIAG_RESP, MSG_FW_IMAGE_AVAIL_IND);
    EXPECT_EQ(MSG_FW_IMAGE_AVAIL_IND, 2061);
    EXPECT_EQ(sizeof(MSG_CODE), 2U);
}

TEST(message_types, carry_two_flags)
{
    EXPECT_EQ(msg_flag_ack_requested, 0x1000);
    EXPECT_EQ(msg_flag_direct_mask, 0x2000);
    EXPECT_EQ(0x3104 & ~(msg_flag_ack_requested | msg_flag_direct_mask), MSG_HEARTBEAT_IND);
    // Clearing them is masking the high byte with EF and DF.
    EXPECT_EQ(static_cast<uint8_t>(~msg_flag_ack_requested >> 8), 0xEF);
    EXPECT_EQ(static_cast<uint8_t>(~msg_flag_direct_mask >> 8), 0xDF);
}

TEST(small_enumerations, have_their_wire_values)
{
    const struct {
        long value;
        const char* name;
        long expected;
    } cases[] = {
        {NAMED(GENERIC_REQ_RouteRequest), 10},
        {NAMED(GENERIC_REQ_OtaPage), 16},
        {NAMED(GENERIC_REQ_OtaApply), 17},
        {NAMED(GENERIC_REQ_UltdoaData), 40},
        {NAMED(GENERIC_REQ_RangeRpt), 48},
        {NAMED(NR_UNDEF), 0},
        {NAMED(NR_FIXED), 1},
        {NAMED(NR_MOBILE), 2},
        {NAMED(NR_CONF_PENDING), 3},
        {NAMED(NR_BRIDGE), 4},
        {NAMED(NR_TDOA_MOBILE), 5},
        {NAMED(NR_SENSOR), 6},
        {NAMED(UNDEF_FIRMWARE), 0},
        {NAMED(ENO_FIRMWARE), 1},
        {NAMED(EOF_FIRMWARE), 2},
        {NAMED(CRC_FIRMWARE), 3},
        {NAMED(IGET_FIRMWARE), 4},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.value, c.expected) << c.name;
}

TEST(scalar_types, have_their_widths)
{
    static_assert(std::is_same_v<SeqNo_t, uint8_t>);
    static_assert(std::is_same_v<rplPrefix_t, uint16_t>);
    static_assert(std::is_same_v<gwCmdID_t, uint16_t>);
    static_assert(std::is_same_v<obnCmdID_t, uint16_t>);
    EXPECT_EQ(sizeof(GENERIC_REQ), 2U);
    EXPECT_EQ(sizeof(NODE_ROLE), 1U);
    EXPECT_EQ(sizeof(GW2BR_FLAGS), 1U);
}

TEST(records, have_their_offsets_and_sizes)
{
    const struct {
        size_t offset;
        const char* name;
        size_t expected;
    } cases[] = {
        {NAMED(msgHeader_t::msgType), 0},
        {NAMED(msgHeader_t::seqNo), 2},
        {NAMED(msgHeader_t::total_len), 3},
        {NAMED(msgHeader_t::size), 5},
        {NAMED(msgGeneric_t::msgType), 0},
        {NAMED(msgGeneric_t::seqNo), 2},
        {NAMED(msgGeneric_t::size), 3},
        {NAMED(gwMsgGeneric_t::msgType), 0},
        {NAMED(gwMsgGeneric_t::seqNo), 2},
        {NAMED(gwMsgGeneric_t::size), 3},
        {NAMED(gwMsgPrefixRequest_t::header), 0},
        {NAMED(gwMsgPrefixRequest_t::ieee_addr), 3},
        {NAMED(gwMsgPrefixRequest_t::size), 11},
        {NAMED(gwMsgVrPrefixResponse_t::msgType), 0},
        {NAMED(gwMsgVrPrefixResponse_t::rplPrefix), 2},
        {NAMED(gwMsgVrPrefixResponse_t::rpl_version), 4},
        {NAMED(gwMsgVrPrefixResponse_t::size), 5},
        {NAMED(gwMsgRootAnnounce_t::header), 0},
        {NAMED(gwMsgRootAnnounce_t::ieee_addr), 3},
        {NAMED(gwMsgRootAnnounce_t::rplPrefix), 11},
        {NAMED(gwMsgRootAnnounce_t::rpl_version), 13},
        {NAMED(gwMsgRootAnnounce_t::size), 14},
        {NAMED(gwMsgHeartbeat_t::header), 0},
        {NAMED(gwMsgHeartbeat_t::reporting_freq), 3},
        {NAMED(gwMsgHeartbeat_t::ranging_freq), 4},
        {NAMED(gwMsgHeartbeat_t::node_role), 5},
        {NAMED(gwMsgHeartbeat_t::sublocation_id), 6},
        {NAMED(gwMsgHeartbeat_t::long_addr), 7},
        {NAMED(gwMsgHeartbeat_t::parent_addr), 15},
        {NAMED(gwMsgHeartbeat_t::sw_version), 23},
        {NAMED(gwMsgHeartbeat_t::pos_X), 27},
        {NAMED(gwMsgHeartbeat_t::pos_Y), 31},
        {NAMED(gwMsgHeartbeat_t::pos_Z), 35},
        {NAMED(gwMsgHeartbeat_t::z_val), 35},
        {NAMED(gwMsgHeartbeat_t::z_offset), 37},
        {NAMED(gwMsgHeartbeat_t::bridge_mac), 39},
        {NAMED(gwMsgHeartbeat_t::ipaddr), 47},
        {NAMED(gwMsgHeartbeat_t::size), 63},
        {NAMED(gwMsgConfigNode_t::msgType), 0},
        {NAMED(gwMsgConfigNode_t::reporting_freq), 2},
        {NAMED(gwMsgConfigNode_t::ranging_freq), 3},
        {NAMED(gwMsgConfigNode_t::node_role), 4},
        {NAMED(gwMsgConfigNode_t::sublocation_id), 5},
        {NAMED(gwMsgConfigNode_t::pos_X), 6},
        {NAMED(gwMsgConfigNode_t::pos_Y), 10},
        {NAMED(gwMsgConfigNode_t::pos_Z), 14},
        {NAMED(gwMsgConfigNode_t::z_val), 14},
        {NAMED(gwMsgConfigNode_t::z_offset), 16},
        {NAMED(gwMsgConfigNode_t::ipaddr), 18},
        {NAMED(gwMsgConfigNode_t::size), 34},
        {NAMED(srvMsgConfigNode_t::msgType), 0},
        {NAMED(srvMsgConfigNode_t::reporting_freq), 2},
        {NAMED(srvMsgConfigNode_t::ranging_freq), 3},
        {NAMED(srvMsgConfigNode_t::node_role), 4},
        {NAMED(srvMsgConfigNode_t::sublocation_id), 5},
        {NAMED(srvMsgConfigNode_t::pos_X), 6},
        {NAMED(srvMsgConfigNode_t::pos_Y), 10},
        {NAMED(srvMsgConfigNode_t::pos_Z), 14},
        {NAMED(srvMsgConfigNode_t::long_addr), 18},
        {NAMED(srvMsgConfigNode_t::size), 26},
        {NAMED(gwMsgAck_t::msgType), 0},
        {NAMED(gwMsgAck_t::seqNo), 2},
        {NAMED(gwMsgAck_t::ipaddr), 3},
        {NAMED(gwMsgAck_t::size), 19},
        {NAMED(srvMsgAck_t::msgType), 0},
        {NAMED(srvMsgAck_t::seqNo), 2},
        {NAMED(srvMsgAck_t::long_addr), 3},
        {NAMED(srvMsgAck_t::size), 11},
        {NAMED(gwMsgFwImageAvailInd_t::msgType), 0},
        {NAMED(gwMsgFwImageAvailInd_t::sh1), 2},
        {NAMED(gwMsgFwImageAvailInd_t::crc32), 6},
        {NAMED(gwMsgFwImageAvailInd_t::len), 10},
        {NAMED(gwMsgFwImageAvailInd_t::size), 12}, // and where the text begins
        {NAMED(msgGenericReq_t::msgHeader), 0},
        {NAMED(msgGenericReq_t::data), 5},
        {NAMED(msgGenericServerReq_t::data), 5},
        {NAMED(msgSensorReportNew_t::data), 5},
        {NAMED(nwk_data_ind::inner), 5},
        {NAMED(nwk_data_ind::trailer_mac), 0},
        {NAMED(nwk_data_ind::trailer_ip), 8},
        {NAMED(nwk_data_ind::overhead), 29},
        {NAMED(wrap_ts::seconds), 5},
        {NAMED(wrap_ts::fraction), 9},
        {NAMED(wrap_ts::size), 11},
        {NAMED(offsetof(gwMsgUpdateRequest_t, msgType)), 0},
        {NAMED(offsetof(gwMsgUpdateRequest_t, flag)), 2},
        {NAMED(offsetof(gwMsgUpdateRequest_t, ver)), 3},
        {NAMED(offsetof(gwMsgUpdateRequest_t, num)), 7},
        {NAMED(offsetof(gwMsgUpdateRequest_t, crc32)), 9},
        {NAMED(offsetof(gwMsgUpdateRequest_t, len)), 13},
        {NAMED(offsetof(gwMsgUpdateRequest_t, buf)), 15},
        {NAMED(sizeof(gwMsgUpdateRequest_t)), 527},
        {NAMED(sizeof(gwMsgUpdateRequest_t::buf)), 512},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.offset, c.expected) << c.name;
}

} // namespace rtls
