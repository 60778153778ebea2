// Sensor reports and generic server requests, direct and forwarded, and the sub-commands of the latter.
#include "base/hex.h"
#include "firmware/ota.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "support/bridge_message_fixture.h"
#include "wire/messaging.h"

#include <algorithm>
#include <cstring>

namespace rtls {

using payloads = bridge_message_fixture;

static constexpr unsigned sensor = MSG_SENSOR_IND_NEW;
static constexpr unsigned generic = MSG_GENERIC_SERVER_REQ;

static bytes_t direct(const bytes_t& message, const std::string& ip = sender_ip)
{
    return message + hex(ip);
}

// What goes upstream of a message: type and length turned round, the sender's MAC at its end.
static std::string report_of(bytes_t message, const std::string& mac = sender_mac)
{
    message[1] &= 0xCF;
    std::swap(message[0], message[1]);
    std::swap(message[3], message[4]);
    return to_hex(message + hex(mac));
}

// --- what both have in common

TEST_F(payloads, a_direct_message_goes_upstream_with_the_mac_of_its_sender)
{
    introduce(sender_mac, sender_ip);
    EXPECT_TRUE(receive(direct(hex("16 01 07 03 00 AA BB CC"))));
    EXPECT_EQ(reports(), texts_t{"0116070003AABBCCE4A2A3A4A5A6A7A8"});
    EXPECT_TRUE(receive(direct(hex("0E 01 08 03 00 AA BB CC"))));
    EXPECT_EQ(reports(), texts_t{"010E080003AABBCCE4A2A3A4A5A6A7A8"});
    EXPECT_EQ(lines("parsing"), (texts_t{"SLIP: MSG_SENSOR_IND_NEW: [22] in_buf_size:3  src:A7A8",
                                         "SLIP: MSG_GENERIC_SERVER_REQ: [14] in_buf_size:3  src:A7A8"}));
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(management_texts(), texts_t{});
}

TEST_F(payloads, a_direct_sender_is_known_by_its_address)
{
    introduce(other_mac, other_ip);
    EXPECT_TRUE(receive(direct(hex("16 01 07 01 00 AA"), other_ip)));
    EXPECT_EQ(reports(), texts_t{"0116070001AA0200000000000099"});

    introduce(sender_mac, other_ip); // reachable by its interface identifier as well
    EXPECT_TRUE(receive(direct(hex("16 01 07 01 00 AA"), sender_ip)));
    EXPECT_EQ(reports(), texts_t{"0116070001AAE4A2A3A4A5A6A7A8"});
}

TEST_F(payloads, an_unknown_direct_sender_gets_its_ack_and_nothing_else)
{
    for (const unsigned type : {sensor, generic}) {
        EXPECT_TRUE(receive(direct(payload_message(type | 0x1000, 7, hex("00 01 02")), other_ip)));
        EXPECT_EQ(replies(), texts_t{"100807" + to_hex(hex(other_ip))});
        EXPECT_EQ(lines("parsing"), texts_t{"SLIP: range ip: 2001::a0b to mac return NULL"});
    }
    EXPECT_EQ(reports(), texts_t{});
    EXPECT_EQ(node_count(), 0U);
}

TEST_F(payloads, a_forwarded_message_ends_with_the_mac_of_its_envelope)
{
    const bytes_t inner = payload_message(sensor, 7, hex("AA BB CC"));
    EXPECT_TRUE(receive(envelope(inner)));
    EXPECT_EQ(reports(), texts_t{report_of(inner)});
    const bytes_t request = payload_message(generic, 8, hex("AA BB CC"));
    EXPECT_TRUE(receive(envelope(request, other_mac)));
    EXPECT_EQ(reports(), texts_t{report_of(request, other_mac)});
    EXPECT_EQ(lines("parsing"), (texts_t{"SLIP: MSG_SENSOR_IND_NEW: [22] in_buf_size:3  src:A7A8",
                                         "SLIP: MSG_GENERIC_SERVER_REQ: [14] in_buf_size:3  src:0099"}));
    EXPECT_EQ(node(sender_mac)->lifetime, 300);
    EXPECT_EQ(node_count(), 2U);
}

TEST_F(payloads, a_forwarded_message_is_taken_once)
{
    for (const unsigned type : {sensor, generic}) {
        const auto seq = static_cast<uint8_t>(type);
        const bytes_t frame = envelope(payload_message(type, seq, hex("AA BB")), sender_mac, 0x1100, 0x42);
        EXPECT_TRUE(receive(frame));
        EXPECT_EQ(reports().size(), 1U);
        (void)lines("parsing");
        EXPECT_TRUE(receive(frame));
        EXPECT_EQ(reports(), texts_t{});
        EXPECT_EQ(lines("parsing"), texts_t{"SLIP: nodes_container_find_or_create_by_mac returns NULL"});
        EXPECT_EQ(replies().size(), 2U); // acknowledged both times
    }
}

TEST_F(payloads, a_direct_message_is_taken_as_often_as_it_comes)
{
    introduce(sender_mac, sender_ip);
    for (int i = 0; i < 3; i++)
        EXPECT_TRUE(receive(direct(payload_message(sensor, 7, hex("AA")))));
    EXPECT_EQ(reports().size(), 3U);
}

TEST_F(payloads, a_direct_message_does_not_lengthen_the_senders_life)
{
    introduce(sender_mac, sender_ip);
    ASSERT_EQ(node(sender_mac)->last_activity.tv_sec, 0);
    for (const unsigned type : {sensor, generic}) {
        EXPECT_TRUE(receive(direct(payload_message(type, 7, hex("AA BB")))));
        EXPECT_EQ(node(sender_mac)->lifetime, 0);
        EXPECT_NE(node(sender_mac)->last_activity.tv_sec, 0);
        EXPECT_EQ(route_of(sender_mac), "0011223344");
    }
    EXPECT_TRUE(receive(direct(payload_message(sensor, 7, hex("AA"))), other_bridge));
    EXPECT_EQ(route_of(sender_mac), "0011223344"); // nor does it move the route
}

TEST_F(payloads, an_ack_goes_to_the_sixteen_bytes_behind_the_payload)
{
    introduce(sender_mac, sender_ip);
    for (const unsigned type : {sensor, generic}) {
        EXPECT_TRUE(receive(direct(payload_message(type | 0x1000, 7, hex("AA BB")))));
        EXPECT_EQ(replies(), texts_t{"100807" + to_hex(hex(sender_ip))});
        EXPECT_EQ(reports(), texts_t{report_of(payload_message(type, 7, hex("AA BB")))});
    }
    // In an envelope these are the MAC and the first half of the address.
    EXPECT_TRUE(receive(envelope(payload_message(sensor, 7, hex("AA")), sender_mac, 0x1100, 9)));
    EXPECT_EQ(replies(), texts_t{"100809E4A2A3A4A5A6A7A8FE80000000000000"});
}

TEST_F(payloads, a_message_goes_upstream_with_its_time_of_generation)
{
    introduce(sender_mac, sender_ip);
    EXPECT_TRUE(receive(with_timestamp(direct(payload_message(sensor, 7, hex("AA"))))));
    EXPECT_TRUE(receive(with_timestamp(direct(payload_message(generic, 7, hex("AA BB"))))));
    EXPECT_EQ(times_of_reports(), (texts_t{"6553F10001F4", "6553F10001F4"}));
}

TEST_F(payloads, an_empty_payload_is_a_message)
{
    introduce(sender_mac, sender_ip);
    EXPECT_TRUE(receive(direct(hex("16 01 07 00 00"))));
    EXPECT_TRUE(receive(direct(hex("0E 01 07 00 00")))); // its sub-command is what follows
    EXPECT_EQ(reports(), (texts_t{"0116070000E4A2A3A4A5A6A7A8", "010E070000E4A2A3A4A5A6A7A8"}));
}

TEST_F(payloads, the_copy_for_the_servers_has_its_limits)
{
    introduce(sender_mac, sender_ip);
    const struct {
        unsigned type;
        size_t total_len;
        bool then;
    } cases[] = {
        {sensor, 287, true},   {sensor, 288, false},   {sensor, 1037, false},   {sensor, 65530, false},
        {generic, 1037, true}, {generic, 1038, false}, {generic, 65530, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << ", " << c.total_len);
        const bytes_t message = payload_message(c.type | 0x1000, 7, ramp(c.total_len, 1));
        EXPECT_EQ(receive(direct(message)), c.then);
        EXPECT_EQ(reports(), c.then ? texts_t{report_of(message)} : texts_t{});
        EXPECT_EQ(replies().size(), c.then ? 1U : 0U);
    }
}

TEST_F(payloads, the_senders_address_must_be_there_but_more_may_follow)
{
    introduce(sender_mac, sender_ip);
    for (const unsigned type : {sensor, generic}) {
        const bytes_t whole = direct(payload_message(type | 0x1000, 7, hex("AA BB CC")));
        for (size_t size = 3; size < whole.size(); size++)
            EXPECT_FALSE(receive(slice(whole, 0, size))) << size;
        EXPECT_EQ(reports(), texts_t{});
        EXPECT_EQ(replies(), texts_t{});
        EXPECT_TRUE(receive(whole));
        EXPECT_TRUE(receive(whole + hex("EE")));
        EXPECT_EQ(reports().size(), 2U);
        EXPECT_EQ(replies().size(), 2U);
    }
}

// --- lengths that do not fit 16 bits

// A message that promises `total_len` bytes, in a frame of `size`.
static bytes_t promising(unsigned type, uint16_t total_len, size_t size, uint16_t sub_command = 0)
{
    bytes_t frame = le16(type) + bytes_t{7} + le16(total_len);
    frame = frame + ramp(size - frame.size(), 1);
    frame[5] = static_cast<uint8_t>(sub_command >> 8);
    frame[6] = static_cast<uint8_t>(sub_command);
    return frame;
}

// The frame's 16 bytes at the wrapped length are what the daemon takes for the sender's address.
static std::string address_in(const bytes_t& frame, uint16_t total_len)
{
    return to_hex(slice(frame, static_cast<uint16_t>(total_len + 5), ip_addr_size));
}

TEST_F(payloads, a_wrapped_length_is_compared_as_it_is)
{
    for (uint16_t total_len = 65531; total_len != 0; total_len++) {
        const auto length = static_cast<uint16_t>(total_len + 5); // 0..4
        for (const unsigned type : {sensor, generic}) {
            SCOPED_TRACE(testing::Message() << type << ", " << total_len);
            const bytes_t frame = promising(type | 0x1000, total_len, 40);
            for (size_t size = 6; size < length + 16U; size++)
                EXPECT_FALSE(receive(slice(frame, 0, size))) << size;
            EXPECT_TRUE(receive(frame)); // from nobody known
            const bytes_t unflagged = promising(type, total_len, 40);
            EXPECT_EQ(replies(), texts_t{"100807" + to_hex(slice(unflagged, length, 16))});
        }
    }
    EXPECT_EQ(reports(), texts_t{});
}

TEST_F(payloads, a_report_of_wrapped_length_goes_upstream_as_far_as_it_is_long)
{
    const struct {
        uint16_t total_len;
        const char* then; // the MAC lies over what the message has at the wrapped length
    } cases[] = {
        {65531, "E4A2A3A4A5A6A7A8"},         {65532, "01E4A2A3A4A5A6A7A8"},
        {65533, "0116E4A2A3A4A5A6A7A8"},     {65534, "011607E4A2A3A4A5A6A7A8"},
        {65535, "011607FFE4A2A3A4A5A6A7A8"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        const bytes_t frame = promising(sensor, c.total_len, 40);
        introduce(sender_mac, address_in(frame, c.total_len));
        EXPECT_TRUE(receive(frame));
        EXPECT_EQ(reports(), texts_t{c.then});
        EXPECT_EQ(lines("parsing"), texts_t{"SLIP: MSG_SENSOR_IND_NEW: [22] in_buf_size:" +
                                            std::to_string(c.total_len) + "  src:A7A8"});
    }
}

TEST_F(payloads, a_forwarded_report_of_wrapped_length_keeps_its_own_bytes)
{
    const struct {
        uint16_t total_len;
        const char* then; // length turned round, and what follows it
    } cases[] = {
        {65531, "011607FFFB000003"},
        {65535, "011607FFFF00000304050607"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(receive(envelope(promising(sensor, c.total_len, 40))));
        EXPECT_EQ(reports(), texts_t{c.then});
    }
}

TEST_F(payloads, a_sub_command_that_promises_more_than_there_is_is_dropped)
{
    const struct {
        const char* given;
        uint16_t code;
        uint16_t needs_below; // bytes of frame that are one too few, at total_len 65535
    } cases[] = {
        {"route request", 10, 15 + 8 * 8190 - 1},
        {"UL-TDOA", 40, 43},
        {"range report", 48, 7 + 8 * 8191 - 1},
    };
    for (const auto& c : cases)
        for (const size_t size : {size_t{24}, size_t{40}, size_t{c.needs_below}}) {
            SCOPED_TRACE(testing::Message() << c.given << ", " << size);
            const bytes_t frame = promising(generic | 0x1000, 65535, size, c.code);
            introduce(sender_mac, address_in(frame, 65535));
            (void)lines("parsing");
            EXPECT_FALSE(receive(frame));
            EXPECT_EQ(replies(), texts_t{});
            EXPECT_EQ(reports(), texts_t{});
            EXPECT_EQ(management_texts(), texts_t{});
            EXPECT_EQ(lines("parsing"),
                      texts_t{"SLIP: MSG_GENERIC_SERVER_REQ: [14] in_buf_size:65535  src:A7A8"});
        }
}

TEST_F(payloads, a_sub_command_of_wrapped_length_is_run_when_all_of_it_is_there)
{
    bytes_t frame = promising(generic, 65535, 15 + 8 * 8190, 10);
    introduce(sender_mac, address_in(frame, 65535));
    EXPECT_TRUE(receive(frame));
    const texts_t route = management_texts();
    ASSERT_EQ(route.size(), 1U);
    EXPECT_EQ(std::count(route[0].begin(), route[0].end(), 'q'), 2 + 8190); // "requester" once, "lqi" each

    frame = promising(generic, 65535, 44, 40);
    introduce(sender_mac, address_in(frame, 65535));
    EXPECT_TRUE(receive(frame));
    const texts_t tdoa = management_texts();
    ASSERT_EQ(tdoa.size(), 1U);
    EXPECT_NE(tdoa[0].find("\"percent_of_charge\":39}"), std::string::npos);
    EXPECT_EQ(reports(), texts_t{});
}

TEST_F(payloads, other_requests_of_wrapped_length_go_upstream)
{
    for (const unsigned code : {0U, 11U, 16U, 17U, 41U}) {
        const bytes_t frame = promising(generic, 65535, 40, static_cast<uint16_t>(code));
        introduce(sender_mac, address_in(frame, 65535));
        EXPECT_TRUE(receive(frame));
        EXPECT_EQ(reports(), texts_t{"010E07FFE4A2A3A4A5A6A7A8"});
    }
}

// --- route requests

static const char* const route_body = "02 AB 34 CD 56 00  EE EE" // reporter
                                      "02 AB 34 CD 56 01  EE 07" // requesters
                                      "FE DC BA 98 76 54  EE FF"
                                      "00 00 00 00 00 01  EE 2A";

TEST_F(payloads, a_route_request_becomes_a_management_text)
{
    introduce(sender_mac, sender_ip);
    const std::string head = "\"route_request\":{\"reporter\":{\"mac\":\"02ab34cd5600\"},\"requester\":["
                             "{\"mac\":\"02ab34cd5601\",\"lqi\":  7}";
    const std::string second = ",{\"mac\":\"fedcba987654\",\"lqi\":255}";
    const std::string third = ",{\"mac\":\"000000000001\",\"lqi\": 42}";
    const struct {
        size_t total_len;
        std::string then;
    } cases[] = {
        {18, head + "]}"},
        {25, head + "]}"},
        {26, head + second + "]}"},
        {34, head + second + third + "]}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        bytes_t request = generic_req(7, 10, slice(hex(route_body), 0, c.total_len - 2));
        EXPECT_TRUE(receive(direct(request)));
        EXPECT_EQ(management_texts(), texts_t{c.then});
        EXPECT_EQ(reports(), texts_t{});
        EXPECT_EQ(replies(), texts_t{});
        request[1] |= 0x10;
        EXPECT_TRUE(receive(direct(request)));
        EXPECT_EQ(replies(), texts_t{"100807" + to_hex(hex(sender_ip))});
        EXPECT_EQ(management_texts().size(), 1U);
    }
}

TEST_F(payloads, the_longest_route_request_lists_128_requesters)
{
    introduce(sender_mac, sender_ip);
    EXPECT_TRUE(receive(direct(generic_req(7, 10, ramp(1035)))));
    const texts_t texts = management_texts();
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_EQ(std::count(texts[0].begin(), texts[0].end(), 'q'), 2 + 128);
}

TEST_F(payloads, a_request_too_short_for_its_sub_command_goes_upstream)
{
    introduce(sender_mac, sender_ip);
    const struct {
        uint16_t code;
        size_t total_len;
    } cases[] = {{10, 2},  {10, 17}, {16, 13}, {16, 15}, {17, 14},
                 {40, 27}, {48, 9},  {48, 2},  {0, 18},  {0x0A00, 18}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.code << ", " << c.total_len);
        const bytes_t request = generic_req(7, c.code, ramp(c.total_len - 2));
        EXPECT_TRUE(receive(direct(request)));
        EXPECT_EQ(reports(), texts_t{report_of(request)});
        EXPECT_EQ(management_texts(), texts_t{});
    }
    for (const std::string& line : lines("parsing"))
        EXPECT_TRUE(line.starts_with("SLIP: MSG_GENERIC_SERVER_REQ: ")) << line;
}

// --- UL-TDOA data

TEST_F(payloads, ul_tdoa_data_becomes_a_management_text)
{
    const bytes_t body =
        hex("02 AB 34 CD 56 01  00 0A  02 AB 34 CD 56 02  02 AB 34 CD 56 03  00 00 03 E8  80 81") +
        hex("03 04 00 00 00 00 00 01 00 02  64");
    const std::string text = "\"ul_tdoa_data\":{\"pe_seq_no\":10,\"range_mm\":1000,"
                             "\"tag\":{\"mac\":\"02ab34cd5601\",\"lqi\":128},"
                             "\"responder\":{\"mac\":\"02ab34cd5602\",\"lqi\":129},"
                             "\"reporter\":{\"mac\":\"02ab34cd5603\"}";
    const std::string board =
        ",\"board_version\":3,\"board_revision\":4,\"flags\":\"0\",\"firmware_id\":\"1\","
        "\"batt_voltage\":2";
    const struct {
        size_t total_len;
        std::string then;
    } cases[] = {{28, text + "}"},
                 {37, text + "}"},
                 {38, text + board + "}"},
                 {39, text + board + ",\"percent_of_charge\":100}"}};
    uint8_t seq = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        EXPECT_TRUE(
            receive(envelope(generic_req(seq++, 40, slice(body, 0, c.total_len - 2)), sender_mac, 0x1100)));
        EXPECT_EQ(management_texts(), texts_t{c.then});
        EXPECT_EQ(reports(), texts_t{});
        EXPECT_EQ(replies().size(), 1U);
    }
}

// --- range reports

TEST_F(payloads, a_range_report_is_printed_and_goes_upstream)
{
    introduce(sender_mac, sender_ip);
    const bytes_t body = hex("AB CD 00 01 E2 40 00 07 00 01 FF FF FF FF FF FF 99 99 99");
    const std::string first = "RANGE_RPT: A7A8, ABCD,     123456,     7";
    const std::string second = "RANGE_RPT: A7A8, 0001, 4294967295, 65535";
    const struct {
        size_t total_len;
        texts_t then;
    } cases[] = {{10, {first}}, {17, {first}}, {18, {first, second}}, {21, {first, second}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        const bytes_t request = generic_req(7, 48, slice(body, 0, c.total_len - 2));
        EXPECT_TRUE(receive(direct(request)));
        EXPECT_EQ(reports(), texts_t{report_of(request)});
        texts_t printed = lines("parsing");
        ASSERT_FALSE(printed.empty());
        printed.erase(printed.begin());
        EXPECT_EQ(printed, c.then);
    }
}

// --- OTA pages

static const char* const page_request =
    "00 10  12 34 56 78  9A BC DE F0  00 80  00 03"; // page 3 of 128 bytes

TEST_F(payloads, a_page_of_a_stored_image_is_served_without_the_servers)
{
    const bytes_t page = ramp(128, 0xC0);
    introduce(sender_mac, sender_ip);
    ASSERT_TRUE(
        ota_set_firmware_page(rtls_gateway_get_ota(gateway), 0x12345678, 0x9ABCDEF0, 128, 3, page.data()));

    EXPECT_TRUE(receive(direct(payload_message(generic | 0x1000, 7, hex(page_request)))));
    const std::string response = "0E0807008E" + to_hex(hex(page_request)) + to_hex(page);
    EXPECT_EQ(replies(), (texts_t{response + to_hex(hex(sender_ip)), "100807" + to_hex(hex(sender_ip))}));
    EXPECT_EQ(reports(), texts_t{});
}

TEST_F(payloads, a_page_that_is_not_stored_is_the_servers_business)
{
    introduce(sender_mac, sender_ip);
    const bytes_t request = payload_message(generic, 7, hex(page_request));
    EXPECT_TRUE(receive(direct(request)));
    EXPECT_EQ(reports(), texts_t{report_of(request)});
    EXPECT_EQ(replies(), texts_t{});
}

} // namespace rtls
