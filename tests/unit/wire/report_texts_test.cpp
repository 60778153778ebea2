#include "wire/report_texts.h"

#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

namespace rtls {

TEST(timestamp_frame, is_big_endian)
{
    const struct {
        uint32_t seconds;
        uint16_t milliseconds;
        const char* then;
    } cases[] = {
        {1'700'000'000, 250, "65 53 F1 00 00 FA"},
        {0, 0, "00 00 00 00 00 00"},
        {0xFFFFFFFF, 999, "FF FF FF FF 03 E7"},
        {1, 500, "00 00 00 01 01 F4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.then);
        const auto frame = timestamp_frame(c.seconds, c.milliseconds);
        EXPECT_EQ(bytes_t(frame.begin(), frame.end()), hex(c.then));
    }
}

TEST(report_sender, stands_where_the_type_has_it)
{
    const bytes_t mac = hex("02 AB 34 CD 56 00 1A 2B");
    const bytes_t other = hex("11 11 11 11 11 11 11 11");
    const struct {
        const char* given;
        bytes_t report;
        bytes_t then;
    } cases[] = {
        {"a heartbeat", hex("01 04 07 3C 05 14 03") + mac + other + bytes_t(16, 9) + other, mac},
        {"a node's announcement", hex("01 0F 07 3C 05 14 03") + mac + other + bytes_t(16, 9) + other, mac},
        {"a root's announcement", hex("01 03 07") + mac + hex("12 34"), mac},
        {"sensor data", hex("01 16 07 00 01 FF") + mac, mac},
        {"a generic request", hex("01 0E 07 00 02 77 77") + mac, mac},
        {"a type that is not known", hex("7F 7F 07") + mac, mac},
        {"less than a MAC", hex("01 16 07"), hex("01 16 07")},
        {"a short heartbeat", hex("01 04 07 3C 05 14 03 02 AB"), hex("02 AB")},
        {"a shorter one", hex("01 04 07"), {}},
        {"less than a type", hex("01"), hex("01")},
        {"nothing", {}, {}},
    };
    for (const auto& c : cases) {
        const bytes_view found = report_sender(c.report);
        EXPECT_EQ(bytes_t(found.begin(), found.end()), c.then) << c.given;
    }
}

TEST(management_head, pads_its_numbers_with_blanks)
{
    const struct {
        tav_timestamp_t time;
        const char* then;
    } cases[] = {
        {{5, 7}, "@win_management {\"ts\":         5,\"ms\":  7,"},
        {{1'700'000'000, 250}, "@win_management {\"ts\":1700000000,\"ms\":250,"},
        {{0, 0}, "@win_management {\"ts\":         0,\"ms\":  0,"},
        {{12'345'678'901, 1000}, "@win_management {\"ts\":12345678901,\"ms\":1000,"},
        {{INT64_MIN, UINT32_MAX}, "@win_management {\"ts\":-9223372036854775808,\"ms\":4294967295,"},
    };
    for (const auto& c : cases) {
        char out[management_head_limit];
        const size_t size = write_management_head(c.time, out);
        EXPECT_EQ(std::string(out, size), c.then);
    }
}

// --- route requests

static std::string route_request_text(const bytes_t& message, size_t requesters)
{
    std::string text(route_request_text_size(requesters), '?');
    write_route_request_text(message, requesters, text);
    EXPECT_EQ(text.back(), '\0');
    text.pop_back();
    EXPECT_EQ(text.find('\0'), text.npos);
    EXPECT_EQ(text.find('?'), text.npos);
    return text;
}

TEST(route_request, lists_its_requesters)
{
    const bytes_t head = hex("0E 01 07 22 00  00 0A  02 AB 34 CD 56 00  EE EE");
    const bytes_t first = hex("02 AB 34 CD 56 01  EE 07");
    const bytes_t second = hex("FE DC BA 98 76 54  EE FF");
    const bytes_t third = hex("00 00 00 00 00 00  EE 2A");
    const std::string text_head =
        "\"route_request\":{\"reporter\":{\"mac\":\"02ab34cd5600\"},\"requester\":[";
    const std::string text_first = "{\"mac\":\"02ab34cd5601\",\"lqi\":  7}";
    const std::string text_second = "{\"mac\":\"fedcba987654\",\"lqi\":255}";
    const std::string text_third = "{\"mac\":\"000000000000\",\"lqi\": 42}";

    EXPECT_EQ(route_request_text(head, 0), text_head + "]}");
    EXPECT_EQ(route_request_text(head + first, 1), text_head + text_first + "]}");
    EXPECT_EQ(route_request_text(head + first + second, 2),
              text_head + text_first + "," + text_second + "]}");
    EXPECT_EQ(route_request_text(head + first + second + third, 3),
              text_head + text_first + "," + text_second + "," + text_third + "]}");
}

TEST(route_request, counts_whole_requesters)
{
    const struct {
        uint16_t total_len;
        size_t requesters;
        size_t extent;
    } cases[] = {{18, 1, 23}, {25, 1, 23}, {26, 2, 31}, {34, 3, 39}, {1037, 128, 1039}, {65535, 8190, 65535}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        EXPECT_EQ(route_requesters(c.total_len), c.requesters);
        EXPECT_EQ(route_request_extent(c.requesters), c.extent);
        if (c.total_len < 65531) {
            EXPECT_LE(c.extent, c.total_len + 5U);
        }
    }
}

// --- UL-TDOA

static const char* const measurement = "28 00"                         // placeholders of the sub-command
                                       "02 AB 34 CD 56 01"             // tag
                                       "12 34"                         // pe_seq_no
                                       "02 AB 34 CD 56 02"             // responder
                                       "02 AB 34 CD 56 03"             // reporter
                                       "FF FF FF FE"                   // range_mm
                                       "80 09"                         // the two LQIs
                                       "03 04 0A BC 00 01 E2 40 0E 10" // board
                                       "64";                           // charge

static bytes_t ul_tdoa_message(uint16_t total_len)
{
    bytes_t message = hex("0E 01 07 00 00") + hex(measurement);
    message[3] = static_cast<uint8_t>(total_len);
    message[4] = static_cast<uint8_t>(total_len >> 8);
    return message;
}

static std::string ul_tdoa_text(const bytes_t& message)
{
    const auto report = read_ul_tdoa(message);
    if (!report)
        return "(none)";
    char out[ul_tdoa_text_limit];
    const size_t size = write_ul_tdoa_text(*report, out);
    EXPECT_EQ(size, strlen(out));
    return out;
}

TEST(ul_tdoa, has_the_fields_that_its_length_promises)
{
    const std::string base = "\"ul_tdoa_data\":{\"pe_seq_no\":4660,\"range_mm\":-2,"
                             "\"tag\":{\"mac\":\"02ab34cd5601\",\"lqi\":128},"
                             "\"responder\":{\"mac\":\"02ab34cd5602\",\"lqi\":9},"
                             "\"reporter\":{\"mac\":\"02ab34cd5603\"}";
    const std::string board = ",\"board_version\":3,\"board_revision\":4,\"flags\":\"ABC\","
                              "\"firmware_id\":\"1E240\",\"batt_voltage\":3600";
    const std::string charge = ",\"percent_of_charge\":100";
    const struct {
        uint16_t total_len;
        std::string then;
    } cases[] = {
        {28, base + "}"},
        {37, base + "}"},
        {38, base + board + "}"},
        {39, base + board + charge + "}"},
        {40, base + board + charge + "}"},
        {65535, base + board + charge + "}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        EXPECT_EQ(ul_tdoa_text(ul_tdoa_message(c.total_len)), c.then);
    }
}

TEST(ul_tdoa, is_refused_when_the_message_ends_before_its_fields)
{
    const struct {
        uint16_t total_len;
        size_t extent;
    } cases[] = {{0, 33}, {28, 33}, {37, 33}, {38, 43}, {39, 44}, {65535, 44}};
    for (const auto& c : cases) {
        EXPECT_EQ(ul_tdoa_extent(c.total_len), c.extent);
        const bytes_t whole = ul_tdoa_message(c.total_len);
        for (size_t size = 0; size <= whole.size(); size++) {
            SCOPED_TRACE(testing::Message() << c.total_len << ", cut to " << size);
            const bytes_t cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
            EXPECT_EQ(read_ul_tdoa(cut).has_value(), size >= c.extent);
        }
    }
}

TEST(ul_tdoa, the_widest_values_make_the_longest_text)
{
    bytes_t message = ul_tdoa_message(39);
    std::fill(message.begin() + 5, message.end(), uint8_t{0xFF});
    message[27] = 0x80; // the most negative range
    message[28] = message[29] = message[30] = 0;
    const std::string text = ul_tdoa_text(message);
    EXPECT_EQ(text.size(), 301U);
    EXPECT_NE(text.find("\"pe_seq_no\":65535,\"range_mm\":-2147483648,"), text.npos);
    EXPECT_NE(text.find("\"flags\":\"FFFF\",\"firmware_id\":\"FFFFFFFF\",\"batt_voltage\":65535,"),
              text.npos);
}

TEST(ul_tdoa, hexadecimal_numbers_have_no_leading_zeros)
{
    bytes_t message = ul_tdoa_message(38);
    std::fill(message.begin() + 35, message.begin() + 41, uint8_t{0});
    EXPECT_NE(ul_tdoa_text(message).find("\"flags\":\"0\",\"firmware_id\":\"0\","), std::string::npos);
}

// The wording as one format, for comparison with the text put together piece by piece.
static std::string formatted(const bytes_t& m, bool with_board, bool with_charge)
{
    char out[512];
    int size = snprintf(
        out, sizeof out,
        "\"ul_tdoa_data\":{\"pe_seq_no\":%u,\"range_mm\":%d,\"tag\":{\"mac\":\"%02x%02x%02x%02x%02x%02x\","
        "\"lqi\":%u},\"responder\":{\"mac\":\"%02x%02x%02x%02x%02x%02x\",\"lqi\":%u},\"reporter\":{\"mac\":"
        "\"%02x%02x%02x%02x%02x%02x\"}}",
        load_be16(m, 13), static_cast<int>(load_be32(m, 27)), m[7], m[8], m[9], m[10], m[11], m[12], m[31],
        m[15], m[16], m[17], m[18], m[19], m[20], m[32], m[21], m[22], m[23], m[24], m[25], m[26]);
    if (with_board)
        size +=
            snprintf(out + size - 1, sizeof out - static_cast<size_t>(size) + 1,
                     ",\"board_version\":%u,\"board_revision\":%u,\"flags\":\"%X\",\"firmware_id\":\"%X\","
                     "\"batt_voltage\":%u}",
                     m[33], m[34], load_be16(m, 35), load_be32(m, 37), load_be16(m, 41)) -
            1;
    if (with_charge)
        snprintf(out + size - 1, sizeof out - static_cast<size_t>(size) + 1, ",\"percent_of_charge\":%u}",
                 m[43]);
    return out;
}

TEST(ul_tdoa, random_measurements_read_as_formatted)
{
    std::mt19937 random{20240501};
    for (int i = 0; i < 2000; i++) {
        const auto total_len = static_cast<uint16_t>(28 + random() % 14);
        bytes_t message = ul_tdoa_message(total_len);
        for (size_t at = 5; at < message.size(); at++)
            message[at] = static_cast<uint8_t>(random());
        ASSERT_EQ(ul_tdoa_text(message), formatted(message, total_len > 37, total_len > 38));
    }
}

} // namespace rtls
