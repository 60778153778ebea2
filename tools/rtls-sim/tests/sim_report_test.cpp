#include "rtls-sim/report.h"

#include <gtest/gtest.h>

namespace sim {

static const mac_bytes node_mac = device_mac(1, 2);
static const bytes time_frame = {0x65, 0x53, 0xF1, 0x00, 0x00, 0xFA};

static bytes content_of(const uplink_message& message)
{
    return {message.content.begin(), message.content.end()};
}

static uplink_message some_heartbeat()
{
    vital_signs signs;
    signs.mac = node_mac;
    signs.parent = device_mac(1, 0);
    signs.role = 2;
    signs.sw_version = 0x0102A0FF;
    signs.x = -7;
    return make_heartbeat(kind::heartbeat, signs, 200, device_mac(1, 0));
}

static std::vector<uplink_message> handler_messages()
{
    const range_entry entries[] = {{0x0105, 1000, 7}};
    bytes stamped = {0xAA};
    const bytes stamp = encode_stamp({1, 77, 3});
    stamped.insert(stamped.end(), stamp.begin(), stamp.end());
    return {make_root_announce(device_mac(1, 0), 4, 0x0123, 240),
            some_heartbeat(),
            make_sensor(node_mac, 17, stamped),
            make_range(node_mac, 18, entries, {1, 2, 3}),
            make_generic(node_mac, 19, 99, bytes(40, 0xEE)),
            make_ota_page_request(node_mac, 20, {1, 2, 512, 3})};
}

TEST(sim_report, what_was_sent_is_read_upstream)
{
    const struct {
        kind k;
        const char* shown;
    } then[] = {
        {kind::root_announce, "root announcement 0100 seq   4 prefix 0123"},
        {kind::heartbeat, "heartbeat         0102 seq 200 mobile state 00 rf 60 rngf 5 sl 00 parent 0100 "
                          "sw 0102A0FF xyz -7,0,0 via 0100"},
        {kind::sensor, "sensor report     0102 seq  17 1 bytes AA no 77"},
        {kind::range, "ranges            0102 seq  18 0105 1000 mm q 7"},
        {kind::generic,
         "generic           0102 seq  19 42 bytes 0063EEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEE.."},
        {kind::ota_page, "ota page request  0102 seq  20 git 00000001 crc 00000002 page 3 of 512 bytes"},
    };
    const auto messages = handler_messages();
    ASSERT_EQ(messages.size(), std::size(then));
    for (size_t i = 0; i < messages.size(); ++i) {
        const upstream_report report = read_handler_message(time_frame, content_of(messages[i]));
        EXPECT_TRUE(report.valid);
        EXPECT_EQ(report.kind, then[i].k);
        EXPECT_EQ(report.from, messages[i].from);
        EXPECT_EQ(report.seq, messages[i].seq);
        EXPECT_EQ(report.content, messages[i].content);
        EXPECT_EQ(report.time.seconds, 1'700'000'000U);
        EXPECT_EQ(report.time.milliseconds, 250);
        EXPECT_EQ(describe(report), then[i].shown);
    }
}

TEST(sim_report, a_message_cut_or_stretched_anywhere_is_not_valid)
{
    for (const uplink_message& message : handler_messages()) {
        bytes data = content_of(message);
        for (size_t size = 0; size < data.size(); ++size) {
            const upstream_report report = read_handler_message(time_frame, view{data}.first(size));
            EXPECT_FALSE(report.valid) << kind_name(message.kind) << " cut to " << size;
            EXPECT_EQ(describe(report).substr(0, 11), "unreadable:");
        }
        data.push_back(0);
        EXPECT_FALSE(read_handler_message(time_frame, data).valid) << kind_name(message.kind);
    }
}

TEST(sim_report, the_time_frame_has_six_bytes_and_less_than_1000_milliseconds)
{
    const bytes data = content_of(some_heartbeat());
    for (const char* bad : {"", "6553F10000", "6553F10000FA00", "6553F10003E8"})
        EXPECT_FALSE(read_handler_message(*from_hex(bad), data).valid) << bad;
    EXPECT_TRUE(read_handler_message(*from_hex("6553F10003E7"), data).valid);
}

TEST(sim_report, management_lines_are_read_by_their_exact_form)
{
    const std::string content = R"("route_request":{"reporter":{"mac":"510000000102"},"requester":[]})";
    const struct {
        const char* given;
        std::string line;
        bool valid;
    } cases[] = {
        {"as it should be", R"(@win_management {"ts":1700000000,"ms":  7,)" + content + "}", true},
        {"early times", R"(@win_management {"ts":         5,"ms":123,)" + content + "}", true},
        {"seconds not padded", R"(@win_management {"ts":5,"ms":123,)" + content + "}", false},
        {"milliseconds not padded", R"(@win_management {"ts":1700000000,"ms":7,)" + content + "}", false},
        {"no end", R"(@win_management {"ts":1700000000,"ms":  7,)" + content, false},
        {"another head", R"(@win-management {"ts":1700000000,"ms":  7,)" + content + "}", false},
        {"an unknown object", R"(@win_management {"ts":1700000000,"ms":  7,"other":{}})", false},
        {"a reporter cut short",
         R"(@win_management {"ts":1700000000,"ms":  7,"route_request":{"reporter":{"mac":"5100)", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(read_management_line(c.line).valid, c.valid) << c.given;
    const upstream_report report = read_management_line(cases[0].line);
    EXPECT_EQ(report.content, content);
    EXPECT_EQ(report.kind, kind::route);
    EXPECT_EQ(short_mac(report.from), "0102");
    EXPECT_EQ(report.time.seconds, 1'700'000'000U);
    EXPECT_EQ(report.time.milliseconds, 7);
}

} // namespace sim
