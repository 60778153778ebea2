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

} // namespace rtls
