// What a message says, what is none, and what makes none; the page that lists them.
#include "decode/json.h"
#include "decode/layout_text.h"
#include "examples.h"

#include <gtest/gtest.h>

#include <set>

namespace rtls::decode {

static std::string json_of_hex(direction way, std::string_view hex)
{
    return to_json_text(decode(way, bytes_of_command(hex)));
}

static std::vector<uint8_t> bytes_of_text(std::string_view text)
{
    return {text.begin(), text.end()};
}

// --- the page

TEST(decode_page, examples_decode_to_what_they_show_and_back)
{
    const auto all = examples();
    ASSERT_GT(all.size(), 60U);
    for (const example& e : all) {
        SCOPED_TRACE(e.json);
        EXPECT_EQ(to_json_text(decode(e.way, e.bytes)), e.json);
        const encoded again = encode(from_json_text(e.json));
        EXPECT_EQ(again.bytes, e.bytes) << again.reason;
    }
}

TEST(decode_page, tables_are_the_ones_in_use)
{
    const std::string page = documentation();
    for (const direction way : {direction::up, direction::down, direction::command, direction::report,
                                direction::discovery_request, direction::discovery_answer})
        EXPECT_NE(page.find("\n\n" + layout_text(way)), std::string::npos) << layout_text(way);
    for (const direction way : {direction::up, direction::down})
        EXPECT_NE(page.find("\n\n" + body_text(way)), std::string::npos) << body_text(way);
}

// The names in the first column of a table: "| `ping` 0x0000 |".
static std::set<std::string> names_in(const std::string& table)
{
    static constexpr std::string_view mark = "\n| `";
    std::set<std::string> names;
    for (size_t at = table.find(mark); at != std::string::npos; at = table.find(mark, at + 1)) {
        const size_t begin = at + mark.size();
        names.insert(table.substr(begin, table.find('`', begin) - begin));
    }
    return names;
}

static bool has_example(const std::vector<example>& all, direction way, const std::string& text)
{
    for (const example& e : all)
        if (e.way == way && e.json.find(text) != std::string::npos)
            return true;
    return false;
}

TEST(decode_page, every_row_has_an_example)
{
    const auto all = examples();
    for (const direction way : {direction::up, direction::down, direction::command, direction::report,
                                direction::discovery_request, direction::discovery_answer}) {
        const auto names = names_in(layout_text(way));
        EXPECT_FALSE(names.empty());
        for (const std::string& name : names)
            EXPECT_TRUE(has_example(all, way, "\"kind\":\"" + name + '"')) << direction_name(way) << name;
    }
    for (const direction way : {direction::up, direction::down})
        for (const std::string& name : names_in(body_text(way)))
            EXPECT_TRUE(has_example(all, way, "\"sub_command\":\"" + name + '"'))
                << direction_name(way) << name;
}

// --- what is no message

TEST(decode, says_why_bytes_are_no_message)
{
    const struct {
        direction way;
        const char* hex;
        const char* reason;
    } cases[] = {
        {direction::up, "", "0 bytes are too few for a message"},
        {direction::up, "04", "1 bytes are too few for a message"},
        {direction::up, "0000", "ping: it ends before seqNo does"},
        {direction::up, "010105e45e5100000001", "panid_req: it ends before ieee_addr does"},
        {direction::up, "010105e45e51000000010000", "panid_req: 1 bytes too many"},
        {direction::up, "0e0108050000300102",
         "generic_server_req: 5 bytes of sub_command are counted, 4 are there"},
        {direction::up, "160108010030", "sensor: it ends before ipaddr does"},
        {direction::up, "00020305006553f100800000001701", "wrap_ts: 15 bytes, 17 are the least"},
        {direction::down, "34120000", "no such message has the type 1234"},
        {direction::down, "10080700", "rest_ack: it ends before ipaddr does"},
        {direction::command, "00120a0b0c0d112233440000", "ota_upload_fw: 12 bytes, 13 are the least"},
        {direction::report, "6553f10003e8010601", "milliseconds is 1000"},
        {direction::report, "6553f10000", "5 bytes are too few for a message"},
        {direction::discovery_request, "02e45e510000000100", "discovery_echo: 3 bytes too many"},
        {direction::discovery_request, "01", "discovery_echo: it ends before content does"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.hex);
        const decoded message = decode(c.way, bytes_of_command(c.hex));
        EXPECT_EQ(message.reason, c.reason);
        EXPECT_EQ(message.bytes, bytes_of_command(c.hex));
        EXPECT_TRUE(message.kind.empty() && message.fields.empty());
    }
}

TEST(decode, names_the_message_within_that_is_wrong)
{
    EXPECT_EQ(json_of_hex(direction::up, "0001090400040107"
                                         "00"
                                         "e45e510000010202fe80000000000000e65e510000010202"),
              R"({"direction":"up","kind":"invalid","reason":"nwk_data_ind: message: heartbeat: )"
              R"(it ends before ranging_freq does","bytes":"000109040004010700e45e510000010202)"
              R"(fe80000000000000e65e510000010202"})");
}

TEST(decode, takes_a_line_by_the_letter_only)
{
    const std::string line = R"(@win_management {"ts":         5,"ms":  7,"route_request":{"reporter":)"
                             R"({"mac":"510000000101"},"requester":[{"mac":"510000000102","lqi":  7}]}})";
    EXPECT_EQ(decode(direction::management, bytes_of_text(line)).reason, "");
    const struct {
        const char* what;
        const char* instead;
        const char* reason;
    } cases[] = {
        {"@win", "@lin", "it does not begin with @win_management"},
        {"}}", "}", "its JSON is no time with a route request or UL-TDOA data"},
        {"route_request", "route_reply", "its JSON is no time with a route request or UL-TDOA data"},
        {R"("ms":  7)", R"("ms":7)", "its wording is not the gateway's"},
        {R"("lqi":  7)", R"("lqi":256)", "its wording is not the gateway's"},
        {"510000000101", "51000000010", "its wording is not the gateway's"},
        {"510000000101", "51000000010A", "its wording is not the gateway's"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.instead);
        std::string other = line;
        other.replace(other.find(c.what), std::string_view{c.what}.size(), c.instead);
        EXPECT_EQ(decode(direction::management, bytes_of_text(other)).reason, c.reason);
    }
}

TEST(decode, takes_a_report_in_its_two_parts)
{
    const auto time = bytes_of_command("6553F10000FA");
    const auto report = bytes_of_command("010306E45E510000000100ABCD");
    const decoded message = decode_report(time, report);
    EXPECT_EQ(message.kind, "announce_root");
    EXPECT_EQ(std::get<int64_t>(*find(message.fields, "milliseconds")), 250);
    EXPECT_EQ(decode_report(bytes_view{time}.first(5), report).reason, "its time has 5 bytes");
}

TEST(decode, finds_fields_of_messages_within)
{
    const decoded message =
        decode(direction::up, bytes_of_command("000109060016010801003"
                                               "0e45e510000010202fe80000000000000e65e510000010202"));
    ASSERT_EQ(message.reason, "");
    EXPECT_EQ(std::get<std::string>(*find(message.fields, "message.data")), "30");
    EXPECT_EQ(find(message.fields, "message.ipaddr"), nullptr);
    EXPECT_EQ(find(message.fields, "seqNo.data"), nullptr);
}

TEST(decode, shows_urls_that_are_no_text_as_bytes)
{
    EXPECT_EQ(
        json_of_hex(direction::command, "00120A0B0C0D112233440002410A"),
        R"({"direction":"command","kind":"ota_upload_fw","git_ver":"0a0b0c0d","crc32":"11223344","len":2,)"
        R"("url_bytes":"410a"})");
}

TEST(decode_command_text, is_hex_whose_odd_digit_is_dropped)
{
    EXPECT_EQ(bytes_of_command("0aFf1"), (std::vector<uint8_t>{0x0A, 0xFF}));
    EXPECT_TRUE(bytes_of_command("0aF:ff").empty());
    for (const char* text : {"0g", "g0", "-1", "+1", " 1", "0x", ":00", "00 01"})
        EXPECT_TRUE(bytes_of_command(text).empty()) << text;
    EXPECT_EQ(text_of_command(std::vector<uint8_t>{0x0A, 0xFF, 0x19}), "0AFF19");
}

// --- what makes no message

TEST(encode, says_what_is_wrong_with_the_fields)
{
    static constexpr char ack[] =
        R"({"direction":"command","kind":"rest_ack","seqNo":7,"long_addr":"e45e510000010202"})";
    ASSERT_EQ(encode(from_json_text(ack)).reason, "");
    const struct {
        const char* json;
        const char* reason;
    } cases[] = {
        {"{", "it is no JSON"},
        {"[]", "it is no object of numbers, texts, flags, objects and lists of these"},
        {R"({"direction":"up","kind":"ping","seqNo":1.5})",
         "it is no object of numbers, texts, flags, objects and lists of these"},
        {R"({"direction":"sideways","kind":"ping"})", "it has no direction"},
        {R"({"direction":"up"})", "it has no kind"},
        {R"({"direction":"up","kind":"invalid","reason":"","bytes":""})",
         "what is not valid has a reason and bytes"},
        {R"({"direction":"up","kind":"invalid","reason":"x","bytes":"0"})",
         "what is not valid has bytes as hex, and nothing else"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(from_json_text(c.json).reason, c.reason) << c.json;

    const struct {
        const char* json;
        const char* reason;
    } fields[] = {
        {R"({"direction":"down","kind":"pong"})", "no such message is called pong"},
        {R"({"direction":"command","kind":"rest_ack","seqNo":7})",
         "rest_ack: the field long_addr is missing"},
        {R"({"direction":"command","kind":"rest_ack","seqNo":256,"long_addr":"e45e510000010202"})",
         "rest_ack: the field seqNo is out of its range"},
        {R"({"direction":"command","kind":"rest_ack","seqNo":"7","long_addr":"e45e510000010202"})",
         "rest_ack: the field seqNo is of another kind"},
        {R"({"direction":"command","kind":"rest_ack","seqNo":7,"long_addr":"e45e5100000102"})",
         "rest_ack: the field long_addr is not hex of its size"},
        {R"({"direction":"command","kind":"rest_ack","seqNo":7,"long_addr":"e45e510000010202","lang":1})",
         "rest_ack: there is no field lang in it"},
        {R"({"direction":"command","kind":"sensor_req","seqNo":0,"total_len":1,"data":"0102","mac":"e45e510000010202"})",
         "sensor_req: the field total_len does not count its 2 bytes"},
        {R"({"direction":"down","kind":"rest_ack","seqNo":7,"ipaddr":"fe80:"})",
         "rest_ack: the field ipaddr is no address"},
        {R"({"direction":"down","kind":"generic_req","seqNo":7,"sub_command":"sing","ipaddr":"::"})",
         "generic_req: body: no sub_command is called so"},
        {R"({"direction":"management","kind":"ping","seconds":1,"milliseconds":1})",
         "no management line is called ping"},
        {R"({"direction":"management","kind":"ul_tdoa","seconds":1,"milliseconds":1,"data":"00"})",
         "a line has no field data"},
        {R"({"direction":"management","kind":"ul_tdoa","seconds":1})",
         "the fields seconds and milliseconds are no time"},
    };
    for (const auto& c : fields) {
        const encoded none = encode(from_json_text(c.json));
        EXPECT_EQ(none.reason, c.reason) << c.json;
        EXPECT_TRUE(none.bytes.empty());
    }
}

TEST(encode, needs_no_lengths_no_order_and_no_flags)
{
    const encoded sensor = encode(
        from_json_text(R"({"kind":"sensor","ipaddr":"::1","data":"aa:BB","seqNo":8,"direction":"up"})"));
    EXPECT_EQ(text_of_command(sensor.bytes), "1601080200AABB00000000000000000000000000000001")
        << sensor.reason;
}

} // namespace rtls::decode
