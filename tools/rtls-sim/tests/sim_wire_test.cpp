#include "rtls-sim/wire.h"

#include "wire/messaging.h"

#include <gtest/gtest.h>

#include <random>

using namespace rtls;

namespace sim {

static bytes raw(std::string_view text)
{
    std::string digits{text};
    std::erase(digits, ' ');
    return from_hex(digits).value();
}

static view bytes_of(std::string_view text)
{
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

static std::vector<std::string> messages_from(view stream, size_t chunk)
{
    deframer decoder;
    std::vector<std::string> messages;
    for (size_t at = 0; at < stream.size(); at += chunk)
        decoder.feed(stream.subspan(at, std::min(chunk, stream.size() - at)),
                     [&](view message) { messages.push_back(hex(message)); });
    return messages;
}

TEST(sim_wire, codes_are_the_daemons)
{
    const struct {
        msg ours;
        MSG_CODE daemons;
    } cases[] = {
        {msg::ping, MSG_PING},
        {msg::ota_upload, MSG_OTA_UPLOAD_FW},
        {msg::forwarded, MSG_NWK_DATA_15_4_IND},
        {msg::prefix_request, MSG_PANID_REQ},
        {msg::root_announce, MSG_ANNOUNCE_ROOT_IND},
        {msg::heartbeat, MSG_HEARTBEAT_IND},
        {msg::generic_up, MSG_GENERIC_SERVER_REQ},
        {msg::node_announce, MSG_NODE_ANNOUNCE_IND},
        {msg::sensor_report, MSG_SENSOR_IND_NEW},
        {msg::update_command, MSG_UPDATE_CMD},
        {msg::wrap_ts, MSG_WRAP_TS},
        {msg::node_data, MSG_NWK_DATA_15_4_REQ},
        {msg::conf_node, MSG_CONF_NODE_REQ},
        {msg::firmware_available, MSG_FW_IMAGE_AVAIL_IND},
        {msg::generic_down, MSG_GENERIC_REQ},
        {msg::rest_ack, MSG_REST_ACK},
        {msg::sensor_request, MSG_SENSOR_REQ},
        {msg::conf_sensor, MSG_CONF_SENSOR_REQ},
        {msg::tdoa_schedule, MSG_TDOA_SCHED_CONF_REQ},
        {msg::forwarded_foreign, MSG_TRF2SRV_VIA_CLIENT},
        {msg::prefix_response, MSG_VR_PANID_RESP},
    };
    for (const auto& c : cases)
        EXPECT_EQ(code(c.ours), c.daemons);
    EXPECT_EQ(flag_ack, msg_flag_ack_requested);
    EXPECT_EQ(flag_direct, msg_flag_direct_mask);
    EXPECT_EQ(code(sub::route_request), GENERIC_REQ_RouteRequest);
    EXPECT_EQ(code(sub::ota_page), GENERIC_REQ_OtaPage);
    EXPECT_EQ(code(sub::ota_apply), GENERIC_REQ_OtaApply);
    EXPECT_EQ(code(sub::ul_tdoa), GENERIC_REQ_UltdoaData);
    EXPECT_EQ(code(sub::range_report), GENERIC_REQ_RangeRpt);
}

TEST(sim_wire, numbers_are_written_and_read_in_the_order_named)
{
    const bytes written = writer{}
                              .u8(0x01)
                              .le16(0x0203)
                              .be16(0x0405)
                              .le32(0x06070809)
                              .be32(0x0A0B0C0D)
                              .be64(0x0102030405060708)
                              .take();
    EXPECT_EQ(hex(written), "01"
                            "0302"
                            "0405"
                            "09080706"
                            "0A0B0C0D"
                            "0102030405060708");
    reader in{written};
    EXPECT_EQ(in.u8(), 0x01);
    EXPECT_EQ(in.le16(), 0x0203);
    EXPECT_EQ(in.be16(), 0x0405);
    EXPECT_EQ(in.le32(), 0x06070809U);
    EXPECT_EQ(in.be32(), 0x0A0B0C0DU);
    EXPECT_EQ(in.be64(), 0x0102030405060708U);
    EXPECT_FALSE(in.failed());
    EXPECT_EQ(in.left(), 0U);
}

TEST(sim_wire, a_read_past_the_end_fails_for_good)
{
    const bytes three = raw("010203");
    reader in{three};
    EXPECT_EQ(in.be32(), 0x01020000U);
    EXPECT_TRUE(in.failed());
    EXPECT_EQ(in.u8(), 0);
    EXPECT_TRUE(in.take(1).empty());
}

TEST(sim_wire, hex_is_strict)
{
    EXPECT_EQ(hex(raw("00 0a FF")), "000AFF");
    EXPECT_EQ(from_hex(""), bytes{});
    EXPECT_FALSE(from_hex("0"));
    EXPECT_FALSE(from_hex("0G"));
    EXPECT_FALSE(from_hex("0x01"));
    EXPECT_EQ(hex_number("0x1F"), 0x1FU);
    EXPECT_EQ(hex_number("FFFFFFFF"), 0xFFFFFFFFU);
    EXPECT_FALSE(hex_number("1FFFFFFFF"));
    EXPECT_FALSE(hex_number("12 "));
    EXPECT_FALSE(hex_number(""));
}

TEST(sim_wire, a_short_mac_names_a_simulated_device)
{
    const mac_bytes second_of_first = device_mac(1, 2);
    EXPECT_EQ(hex(second_of_first), "E45E510000000102");
    EXPECT_EQ(parse_mac("0102"), second_of_first);
    EXPECT_EQ(parse_mac("e4:5e:51:00:00:00:01:02"), second_of_first);
    EXPECT_EQ(short_mac(second_of_first), "0102");
    EXPECT_EQ(hex(device_mac(0x0102, 0x0304)), "E45E510001030204");
    EXPECT_FALSE(parse_mac("01020"));
    EXPECT_FALSE(parse_mac("010203"));
    EXPECT_FALSE(parse_mac("zz00"));
    // The gateway finds a node by an address whose interface identifier begins where its MAC begins with E4.
    EXPECT_EQ(hex(device_ip(second_of_first)), "FE80000000000000E65E510000000102");
    EXPECT_EQ(ip_text(device_ip(second_of_first)), "fe80::e65e:5100:0:102");
}

TEST(sim_wire, crcs_have_their_check_values)
{
    EXPECT_EQ(crc32(bytes_of("123456789")), 0xCBF43926U);
    EXPECT_EQ(crc32({}), 0U);
    EXPECT_EQ(crc32_uninverted({}), 0U);
    EXPECT_EQ(crc32_uninverted(raw("00")), 0U);
    EXPECT_EQ(crc32_uninverted(raw("01")), 0x77073096U);
}

TEST(sim_wire, stream_bytes_become_messages)
{
    const struct {
        const char* given;
        const char* stream;
        std::vector<std::string> then;
    } cases[] = {
        {"an empty frame", "F5 F7", {}},
        {"an escaped END inside", "F5 01 F6 F7 02 F7", {"01F702"}},
        {"escaped bytes first and last", "F5 F6 F5 F6 F6 F7", {"F5F6"}},
        {"noise before START", "73 79 6E 63 0A F5 0A F7", {"0A"}},
        {"START inside a frame", "F5 01 02 F5 03 F7", {"03"}},
        {"two frames", "F5 01 F7 F5 02 F7", {"01", "02"}},
        {"ESC and END outside", "F6 F7 F5 01 F7 F7", {"01"}},
    };
    for (const auto& c : cases)
        for (size_t chunk : {1U, 2U, 64U}) {
            SCOPED_TRACE(testing::Message() << c.given << ", " << chunk << " bytes a read");
            EXPECT_EQ(messages_from(raw(c.stream), chunk), c.then);
        }
}

TEST(sim_wire, what_is_framed_comes_back)
{
    EXPECT_EQ(
        [] {
            bytes out;
            append_frame(out, raw("01 F5 02"));
            return hex(out);
        }(),
        "F501F6F502F7");
    std::mt19937 random{7};
    for (int i = 0; i < 500; ++i) {
        bytes message(1 + random() % 300);
        for (uint8_t& byte : message)
            byte = static_cast<uint8_t>(random() % 4 == 0 ? 0xF4 + random() % 5 : random());
        bytes stream;
        append_frame(stream, message);
        EXPECT_EQ(messages_from(stream, 1 + random() % 50), std::vector{hex(message)});
    }
}

TEST(sim_wire, a_stamp_is_found_at_the_end_of_a_payload)
{
    const report_stamp stamp{0xAABBCCDD, 42, 1'700'000'000'123'456'789};
    const bytes encoded = encode_stamp(stamp);
    ASSERT_EQ(encoded.size(), stamp_size);
    const bytes payload = writer{}.be16(48).raw(encoded).take();
    const auto found = find_stamp(payload);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->run, stamp.run);
    EXPECT_EQ(found->counter, stamp.counter);
    EXPECT_EQ(found->time_ns, stamp.time_ns);
    for (size_t size = 0; size < payload.size(); ++size)
        EXPECT_FALSE(find_stamp(view{payload}.first(size))) << size;
}

TEST(sim_wire, a_stamp_among_ranges_looks_like_ranges)
{
    const report_stamp stamp{0xFFFFFFFF, 0xFF'FFFF'FFFF, 0xFFFF'FFFF'FFFF'FFFF};
    const bytes payload = writer{}.be16(48).raw(encode_range_stamp(stamp)).take();
    ASSERT_EQ(payload.size(), 2 + range_stamp_size);
    reader in{payload};
    in.be16();
    while (in.left() > 0) {
        in.be16();
        EXPECT_LT(in.be32(), 65'536U) << "millimetres";
        EXPECT_LT(in.be16(), 256U);
    }
    const auto found = find_range_stamp(payload);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->run, stamp.run);
    EXPECT_EQ(found->counter, stamp.counter);
    EXPECT_EQ(found->time_ns, stamp.time_ns);
    for (size_t size = 0; size < payload.size(); ++size)
        EXPECT_FALSE(find_range_stamp(view{payload}.first(size))) << size;
}

} // namespace sim
