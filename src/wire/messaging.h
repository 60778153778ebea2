// messaging - the wire vocabulary: message codes, sub-codes, and the layout of every record.
//
// A record is a list of offsets from its first byte; nothing is ever overlaid. Unless a line says
// otherwise, numbers are little-endian (LE) on the WIN link. Big-endian (BE) there are: the time of
// MSG_WRAP_TS, the sub-command of generic requests and what follows it (range reports, UL-TDOA, OTA
// pages), and the lengths that the gateway itself writes. The mixture is what the bridges and nodes in
// the field speak: it must stay.
// Ownership  None: constants.
// Threads    Any.
// Failures   None: the values and offsets are checked in messaging.cpp, while it compiles; that the bytes are
//            there is for who reads them.
#pragma once

#include "registry/addresses.h"

#include <cstddef>
#include <cstdint>

namespace rtls {

using SeqNo_t = uint8_t;      // echoed in acknowledgements
using rplPrefix_t = uint16_t; // RPL network prefix (PAN identifier)
using gwCmdID_t = uint16_t;   // message type on the gateway link
using obnCmdID_t = uint16_t;  // message type as the node network writes it; same codes

// Message types. "up" is bridge to gateway, "down" gateway to bridge, "proxy" from the pub/sub proxy.
enum MSG_CODE : gwCmdID_t {
    MSG_PING = 0x0000,                // up; echoed
    MSG_OTA_UPLOAD_FW = 0x0012,       // proxy; firmware upload order
    MSG_NWK_DATA_15_4_IND = 0x0100,   // up; envelope of a message forwarded by a bridge
    MSG_PANID_REQ = 0x0101,           // up; asks for the RPL prefix and version
    MSG_PANID_RESP = 0x0102,          // not handled: the gateway answers with MSG_VR_PANID_RESP
    MSG_ANNOUNCE_ROOT_IND = 0x0103,   // up; a bridge announces itself as RPL root
    MSG_HEARTBEAT_IND = 0x0104,       // up
    MSG_SENSOR_IND = 0x0106,          // not handled
    MSG_VIDEO_RESP = 0x0107,          // not handled
    MSG_MOBILE_POS_IND = 0x010C,      // not handled
    MSG_GENERIC_SERVER_REQ = 0x010E,  // up; request with a sub-command
    MSG_NODE_ANNOUNCE_IND = 0x010F,   // up; same record as the heartbeat
    MSG_SENSOR_IND_NEW = 0x0116,      // up
    MSG_VIDEO_ACK = 0x0117,           // not handled
    MSG_UPDATE_CMD = 0x0118,          // down; tells a bridge to update its firmware
    MSG_UPDATE_REQ = 0x0119,          // record gwMsgUpdateRequest_t
    MSG_EMERGENCY_IND = 0x011A,       // not handled
    MSG_WRAP_TS = 0x0200,             // up; timestamp in front of another message
    MSG_RANGE_REPORT_IND = 0x0205,    // not handled
    MSG_MOBILE_POS_IND_NEW = 0x020C,  // not handled
    MSG_NWK_DATA_15_4_REQ = 0x0800,   // proxy and down; data to a node, and the wrapper of forwarded commands
    MSG_CONF_NODE_REQ = 0x0804,       // proxy and down; node configuration
    MSG_VIDEO_REQ = 0x0807,           // not handled
    MSG_DIAG_REQ = 0x0808,            // not handled
    MSG_LINK_QUAL_REQ = 0x0809,       // not handled
    MSG_LINK_QUAL_RESP = 0x080A,      // not handled
    MSG_LOOPBACK_REQ = 0x080B,        // not handled
    MSG_LOOPBACK_RESP = 0x080C,       // not handled
    MSG_DIAG_RESP = 0x080D,           // shares its value with the next, on purpose
    MSG_FW_IMAGE_AVAIL_IND = 0x080D,  // proxy; what the value means wherever the gateway dispatches on it
    MSG_GENERIC_REQ = 0x080E,         // proxy and down
    MSG_REST_ACK = 0x0810,            // down, and proxy for relaying
    MSG_SENSOR_REQ = 0x0815,          // proxy
    MSG_CONF_SENSOR_REQ = 0x0816,     // proxy
    MSG_TDOA_SCHED_CONF_REQ = 0x0817, // proxy
    MSG_TRF2SRV_VIA_CLIENT = 0x0A00,  // up; as MSG_NWK_DATA_15_4_IND, but the node's route stays
    MSG_RANGE_REQ = 0x2107,           // not handled
    MSG_RANGE_RESP = 0x2207,          // not handled
    MSG_VR_PANID_RESP = 0x8102,       // down; RPL prefix and version
};

// Flag bits that a WIN client may set in a message type; the gateway clears them before it dispatches.
constexpr gwCmdID_t msg_flag_ack_requested = 0x1000;
constexpr gwCmdID_t msg_flag_direct_mask = 0x2000;

// Sub-commands of generic requests: the first two payload bytes, BE.
enum GENERIC_REQ : uint16_t {
    GENERIC_REQ_Reboot = 1, // down
    GENERIC_REQ_RouteRequest = 10,
    GENERIC_REQ_OtaPage = 16,
    GENERIC_REQ_OtaApply = 17,
    GENERIC_REQ_UltdoaData = 40,
    GENERIC_REQ_RangeRpt = 48
};

// Node roles: the low four bits of a role byte.
enum NODE_ROLE : uint8_t {
    NR_UNDEF = 0,
    NR_FIXED = 1,
    NR_MOBILE = 2,
    NR_CONF_PENDING = 3,
    NR_BRIDGE = 4,
    NR_TDOA_MOBILE = 5,
    NR_SENSOR = 6
};

// What an update message says of itself.
enum GW2BR_FLAGS : uint8_t {
    UNDEF_FIRMWARE = 0,
    ENO_FIRMWARE = 1, // there is no image
    EOF_FIRMWARE = 2, // the image's last page, or past it
    CRC_FIRMWARE = 3,
    IGET_FIRMWARE = 4
};

// Opens every variable-length message.
struct msgHeader_t {
    static constexpr size_t msgType = 0; // LE, with flag bits
    static constexpr size_t seqNo = 2;
    static constexpr size_t total_len =
        3; // bytes of payload behind this header; LE up, BE in what the gateway builds
    static constexpr size_t size = 5;
};

// Opens the fixed-size records.
struct msgGeneric_t {
    static constexpr size_t msgType = 0; // LE
    static constexpr size_t seqNo = 2;
    static constexpr size_t size = 3;
};

// The same layout, as bridges name it.
struct gwMsgGeneric_t {
    static constexpr size_t msgType = 0; // LE
    static constexpr size_t seqNo = 2;
    static constexpr size_t size = 3;
};

// MSG_PANID_REQ.
struct gwMsgPrefixRequest_t {
    static constexpr size_t header = 0;    // gwMsgGeneric_t
    static constexpr size_t ieee_addr = 3; // MAC of the requesting bridge
    static constexpr size_t size = 11;
};

// MSG_VR_PANID_RESP.
struct gwMsgVrPrefixResponse_t {
    static constexpr size_t msgType = 0;   // LE
    static constexpr size_t rplPrefix = 2; // LE
    static constexpr size_t rpl_version = 4;
    static constexpr size_t size = 5;
};

// MSG_ANNOUNCE_ROOT_IND.
struct gwMsgRootAnnounce_t {
    static constexpr size_t header = 0;       // gwMsgGeneric_t
    static constexpr size_t ieee_addr = 3;    // MAC of the root bridge
    static constexpr size_t rplPrefix = 11;   // LE
    static constexpr size_t rpl_version = 13; // not forwarded upstream
    static constexpr size_t size = 14;
};

// MSG_HEARTBEAT_IND and MSG_NODE_ANNOUNCE_IND.
struct gwMsgHeartbeat_t {
    static constexpr size_t header = 0;         // msgGeneric_t
    static constexpr size_t reporting_freq = 3; // a fifth of the node's lifetime in seconds
    static constexpr size_t ranging_freq = 4;
    static constexpr size_t node_role = 5; // low nibble NODE_ROLE, high nibble node state
    static constexpr size_t sublocation_id = 6;
    static constexpr size_t long_addr = 7;    // MAC of the node
    static constexpr size_t parent_addr = 15; // MAC of its parent
    static constexpr size_t sw_version = 23;  // LE
    static constexpr size_t pos_X = 27;       // LE, signed
    static constexpr size_t pos_Y = 31;       // LE, signed
    static constexpr size_t pos_Z = 35;       // LE, signed; or its halves:
    static constexpr size_t z_val = 35;       // LE, signed, 16 bits
    static constexpr size_t z_offset = 37;    // LE, signed, 16 bits
    static constexpr size_t bridge_mac = 39;  // MAC of the bridge it is heard through
    static constexpr size_t ipaddr = 47;      // IPv6 address of the node; not forwarded upstream
    static constexpr size_t size = 63;
};

// Node configuration towards a bridge.
struct gwMsgConfigNode_t {
    static constexpr size_t msgType = 0; // LE
    static constexpr size_t reporting_freq = 2;
    static constexpr size_t ranging_freq = 3;
    static constexpr size_t node_role = 4;
    static constexpr size_t sublocation_id = 5;
    static constexpr size_t pos_X = 6;
    static constexpr size_t pos_Y = 10;
    static constexpr size_t pos_Z = 14; // or its halves:
    static constexpr size_t z_val = 14;
    static constexpr size_t z_offset = 16;
    static constexpr size_t ipaddr = 18; // IPv6 address of the node
    static constexpr size_t size = 34;
};

// Node configuration as the server sends it.
struct srvMsgConfigNode_t {
    static constexpr size_t msgType = 0; // BE
    static constexpr size_t reporting_freq = 2;
    static constexpr size_t ranging_freq = 3;
    static constexpr size_t node_role = 4;
    static constexpr size_t sublocation_id = 5;
    static constexpr size_t pos_X = 6;      // BE
    static constexpr size_t pos_Y = 10;     // BE
    static constexpr size_t pos_Z = 14;     // BE
    static constexpr size_t long_addr = 18; // MAC of the node
    static constexpr size_t size = 26;
};

// MSG_REST_ACK towards a WIN client.
struct gwMsgAck_t {
    static constexpr size_t msgType = 0; // LE
    static constexpr size_t seqNo = 2;   // of the acknowledged message
    static constexpr size_t ipaddr = 3;  // of the node that is to receive it
    static constexpr size_t size = 19;
};

// MSG_REST_ACK as the server sends it.
struct srvMsgAck_t {
    static constexpr size_t msgType = 0; // BE
    static constexpr size_t seqNo = 2;
    static constexpr size_t long_addr = 3; // MAC of the node
    static constexpr size_t size = 11;
};

// MSG_OTA_UPLOAD_FW: a head, then `len` bytes of URL.
struct ota_upload {
    static constexpr size_t msgType = 0; // BE
    static constexpr size_t git_ver = 2; // BE
    static constexpr size_t crc32 = 6;   // BE
    static constexpr size_t len = 10;    // BE
    static constexpr size_t size = 12;
};

// MSG_FW_IMAGE_AVAIL_IND: a head, then `len` bytes of URL.
struct gwMsgFwImageAvailInd_t {
    static constexpr size_t msgType = 0; // BE
    static constexpr size_t sh1 = 2;     // firmware identifier
    static constexpr size_t crc32 = 6;   // BE; 0: not checked
    static constexpr size_t len = 10;    // BE
    static constexpr size_t size = 12;
};

// MSG_GENERIC_SERVER_REQ, MSG_GENERIC_REQ, MSG_SENSOR_IND_NEW: a header, then a payload of total_len bytes.
struct msgGenericReq_t {
    static constexpr size_t msgHeader = 0;
    static constexpr size_t data = 5;
};
using msgGenericServerReq_t = msgGenericReq_t;
using msgSensorReportNew_t = msgGenericReq_t;

// The payload of a MSG_GENERIC_SERVER_REQ, by sub-command. All of it is BE; offsets count from the
// message's start.
struct generic_server_request {
    static constexpr size_t sub_command = 5; // GENERIC_REQ
    static constexpr size_t body = 7;
};

// How long a MAC is in route requests and UL-TDOA. Everywhere else it has mac_size.
constexpr size_t six_byte_mac = 6;

// GENERIC_REQ_RouteRequest: a reporter, then an entry for each requester it has heard.
struct route_request {
    static constexpr size_t reporter = 7;          // u8[six_byte_mac]
    static constexpr size_t reporter_skipped = 13; // u8[2]
    static constexpr size_t requesters = 15;       // entries, from the message's start
    static constexpr size_t mac = 0;               // u8[six_byte_mac]; from here on within an entry
    static constexpr size_t mac_skipped = 6;       // u8
    static constexpr size_t lqi = 7;
    static constexpr size_t entry_size = 8;
    static constexpr size_t fixed_len = requesters - msgHeader_t::size; // of total_len, beside the entries
    static constexpr size_t least_len = fixed_len + entry_size;         // a request names somebody
};

// GENERIC_REQ_RangeRpt: entries up to the payload's end.
struct range_report {
    static constexpr size_t entries = 7;
    static constexpr size_t short_mac = 0; // from here on within an entry
    static constexpr size_t value32 = 2;   // BE
    static constexpr size_t value16 = 6;   // BE
    static constexpr size_t entry_size = 8;
    static constexpr size_t fixed_len = entries - msgHeader_t::size; // of total_len, beside the entries
    static constexpr size_t least_len = fixed_len + entry_size;
};

// GENERIC_REQ_UltdoaData; how much of it there is follows from total_len.
struct ul_tdoa {
    static constexpr size_t tag_mac = 7;
    static constexpr size_t pe_seq_no = 13; // BE
    static constexpr size_t responder_mac = 15;
    static constexpr size_t reporter_mac = 21;
    static constexpr size_t range_mm = 27; // BE, signed
    static constexpr size_t tag_lqi = 31;
    static constexpr size_t resp_anchor_lqi = 32;
    static constexpr size_t board_version = 33; // from here on when total_len has board_len
    static constexpr size_t board_revision = 34;
    static constexpr size_t flags = 35;             // BE
    static constexpr size_t firmware_id = 37;       // BE
    static constexpr size_t batt_voltage = 41;      // BE
    static constexpr size_t percent_of_charge = 43; // when total_len has charge_len
    // The total_len up to each: the board's fields and the charge were added to the measurement later.
    static constexpr size_t least_len = board_version - msgHeader_t::size;
    static constexpr size_t board_len = percent_of_charge - msgHeader_t::size;
    static constexpr size_t charge_len = board_len + 1;
};

// GENERIC_REQ_OtaPage: a node's request for a page; and the head of the request that carries one down to
// it, whether ours or the server's.
struct ota_page {
    static constexpr size_t command = 5;      // BE; GENERIC_REQ_OtaPage
    static constexpr size_t git_id = 7;       // BE
    static constexpr size_t crc32 = 11;       // BE
    static constexpr size_t page_size = 15;   // BE
    static constexpr size_t page_number = 17; // BE
    static constexpr size_t total_len =
        14; // of the fields above: the only one that a node's request may have
    static constexpr size_t size = 19;
};

// GENERIC_REQ_Reboot: an operator's order to a node. BE.
struct reboot_request {
    static constexpr size_t command = 5;
    static constexpr size_t parameter_len = 7;
    static constexpr size_t parameter = 9; // u8[2], zero
    static constexpr size_t mac = 11;
    static constexpr size_t size = 19;
};

// GENERIC_REQ_OtaApply: the same, to run the firmware that the node has fetched. BE.
struct apply_request {
    static constexpr size_t command = 5;
    static constexpr size_t mac = 7;
    static constexpr size_t size = 15;
};

// The same, to fetch a firmware. BE; a MAC follows the last field that is there.
struct set_request {
    static constexpr size_t body_head = 5;        // u8[3], the node firmware's own
    static constexpr size_t description_size = 8; // u8, of all that follows up to the MAC
    static constexpr size_t git_ver = 9;          // u32
    static constexpr size_t crc32 = 13;           // u32
    static constexpr size_t image_size = 17;      // u32
    static constexpr size_t source = 21;          // u16, not there in the passive mode
    static constexpr size_t source_size = 2;
};

// MSG_NWK_DATA_15_4_REQ as the server sends it: a block of p_len bytes and some more, which goes on as it
// is, then the MAC of the node. (What wraps forwarded commands has the same type and a msgHeader_t.)
struct network_data {
    static constexpr size_t msgType = 0; // BE
    static constexpr size_t seqNo = 2;
    static constexpr size_t p_len = 3;     // BE
    static constexpr size_t opaque = 5;    // u8[8], and the p_len bytes
    static constexpr size_t overhead = 13; // of the block, beside the p_len bytes
    static constexpr size_t size = 21;     // with a p_len of 0
};

// MSG_NWK_DATA_15_4_IND and MSG_TRF2SRV_VIA_CLIENT: header, inner message of total_len bytes, trailer.
struct nwk_data_ind {
    static constexpr size_t inner = 5;
    static constexpr size_t trailer_mac = 0; // from the end of the inner message
    static constexpr size_t trailer_ip = 8;
    static constexpr size_t overhead = 29; // header, MAC and IPv6 address
    static constexpr size_t least_size = overhead + 1;
};

// MSG_WRAP_TS: the time of generation in front of a complete message.
struct wrap_ts {
    static constexpr size_t seconds = 5;  // BE
    static constexpr size_t fraction = 9; // BE, in units of 1/65536 s
    static constexpr size_t size = 11;
    // Of a frame: room for a header and a byte behind it. Smaller ones are refused, although some of the
    // fixed-size messages would fit.
    static constexpr size_t least_frame = size + msgHeader_t::size + 1;
};

// The part in front of each report to the message handler: its time of generation.
struct report_timestamp {
    static constexpr size_t seconds = 0;      // BE
    static constexpr size_t milliseconds = 4; // BE
    static constexpr size_t size = 6;
};

// Discovery, by UDP. All of it is BE. A request is told by its size first: an echo has no command.
enum DISCOVERY_CMD : uint8_t { DSC_CMD_REQUEST_ADDRESS = 1 };

// Six bytes, whatever they are, ask for the requester's own address. The answer:
struct discovery_echo {
    static constexpr size_t request_size = 6;
    static constexpr size_t address = 0; // IPv4, of the requester
    static constexpr size_t port = 4;    // the WIN port
    static constexpr size_t size = 6;
};

// DSC_CMD_REQUEST_ADDRESS, and 8 bytes of the requester's choice. The answer is the request and:
struct discovery_address {
    static constexpr size_t command = 0; // DISCOVERY_CMD
    static constexpr size_t choice = 1;
    static constexpr size_t request_size = 9;
    static constexpr size_t address = 9; // IPv4, of the gateway
    static constexpr size_t port = 13;   // the WIN port
    static constexpr size_t size = 15;
};

// What threads ask of the WIN server: a part with the command, a part with its data. Host order: it stays in
// the process.
enum winserw_sock_cmd_t : int32_t {
    WINSERW_SOCK_CMD_GENERIC_REQ = 0, // a generic request, MAC included
};

// One 512-byte page of a firmware image. A record in memory: no peer is sent it.
struct gwMsgUpdateRequest_t {
    gwCmdID_t msgType;
    uint8_t flag; // GW2BR_FLAGS
    uint32_t ver;
    uint16_t num;   // page number
    uint32_t crc32; // of all 512 bytes of buf
    uint16_t len;   // valid bytes in buf
    uint8_t buf[512];
} __attribute__((packed));

} // namespace rtls
