// What the simulator sends, against the bytes on the wire written out by hand.
#include "rtls-sim/uplink.h"

#include "wire/messaging.h"

#include <gtest/gtest.h>

using namespace rtls;

namespace sim {

static std::string content_hex(const uplink_message& message)
{
    return hex({reinterpret_cast<const uint8_t*>(message.content.data()), message.content.size()});
}

static const mac_bytes bridge_mac = device_mac(1, 0);
static const mac_bytes node_mac = device_mac(1, 2);
static const std::string bridge_hex = "E45E510000000100";
static const std::string node_hex = "E45E510000000102";
static const std::string node_ip_hex = "FE80000000000000E65E510000000102";

static vital_signs some_signs()
{
    vital_signs signs;
    signs.reporting_freq = 60;
    signs.ranging_freq = 5;
    signs.role = 6;
    signs.state = 0x30;
    signs.sublocation = 7;
    signs.mac = node_mac;
    signs.parent = bridge_mac;
    signs.sw_version = 0x0102A0FF;
    signs.x = -2;
    signs.y = 0x11223344;
    signs.z = 0x00010002;
    return signs;
}

TEST(sim_uplink, a_heartbeat_is_little_endian_below_and_big_endian_above)
{
    const uplink_message beat = make_heartbeat(kind::heartbeat, some_signs(), 9, bridge_mac);
    const std::string numbers = "FFA00201"
                                "FEFFFFFF"
                                "44332211"
                                "02000100";
    EXPECT_EQ(hex(beat.body), "0401093C053607" + node_hex + bridge_hex + numbers);
    EXPECT_EQ(content_hex(beat), "0104093C053607" + node_hex + bridge_hex +
                                     "0102A0FF"
                                     "FFFFFFFE"
                                     "11223344"
                                     "00010002" +
                                     bridge_hex);
    EXPECT_EQ(beat.to, outlet::handler);
    const bytes direct = sent_directly(beat, bridge_mac, device_ip(node_mac));
    EXPECT_EQ(direct.size(), gwMsgHeartbeat_t::size);
    EXPECT_EQ(hex(direct), hex(beat.body) + bridge_hex + node_ip_hex);
    const bytes forwarded = sent_forwarded(beat, msg::forwarded, 0x89, device_ip(node_mac));
    EXPECT_EQ(hex(forwarded), "0001892700" + hex(beat.body) + node_hex + node_ip_hex);
}

TEST(sim_uplink, an_announcement_differs_in_its_type)
{
    const uplink_message announce = make_heartbeat(kind::node_announce, some_signs(), 9, bridge_mac);
    EXPECT_EQ(hex(view{announce.body}.first(3)), "0F0109");
    EXPECT_EQ(content_hex(announce).substr(0, 6), "010F09");
}

TEST(sim_uplink, bridges_speak_for_themselves)
{
    EXPECT_EQ(hex(make_prefix_request(bridge_mac, 3).body), "010103" + bridge_hex);
    const uplink_message root = make_root_announce(bridge_mac, 4, 0x0123, 240);
    EXPECT_EQ(hex(root.body), "030104" + bridge_hex + "2301F0");
    EXPECT_EQ(content_hex(root), "010304" + bridge_hex + "0123"); // the version ends at the gateway
    const uplink_message ping = make_ping(bridge_mac, 5, bytes{1, 2});
    EXPECT_EQ(hex(ping.body), "0000050102");
    EXPECT_EQ(ping.to, outlet::none);
    for (const uplink_message& message : {make_prefix_request(bridge_mac, 3), root, ping})
        EXPECT_EQ(sent_directly(message, bridge_mac, device_ip(bridge_mac)), message.body);
}

TEST(sim_uplink, a_sensor_report_ends_with_address_below_and_mac_above)
{
    const uplink_message report = make_sensor(node_mac, 0x11, bytes{0xAA, 0xBB, 0xCC});
    EXPECT_EQ(hex(report.body), "1601110300AABBCC");
    EXPECT_EQ(content_hex(report), "0116110003AABBCC" + node_hex);
    EXPECT_EQ(hex(sent_directly(report, bridge_mac, device_ip(node_mac))), "1601110300AABBCC" + node_ip_hex);
}

TEST(sim_uplink, range_entries_are_big_endian)
{
    const range_entry entries[] = {{0x0105, 1000, 7}};
    const uplink_message report = make_range(node_mac, 1, entries, {1, 2, 3});
    EXPECT_EQ(hex(report.body), "0E01012A00"
                                "0030"
                                "0105000003E80007"
                                "534900004D000000000100000000000000020000000000000000000000000003");
    EXPECT_EQ((report.body.size() - 7) % 8, 0U);
}

TEST(sim_uplink, ul_tdoa_data_comes_in_three_lengths)
{
    tdoa_sample s;
    s.tag = device_mac(1, 1);
    s.pe_seq_no = 0x0203;
    s.responder = device_mac(1, 3);
    s.reporter = device_mac(1, 4);
    s.range_mm = -5;
    s.tag_lqi = 200;
    s.responder_lqi = 100;
    s.board_version = 3;
    s.board_revision = 1;
    s.flags = 0x00AB;
    s.firmware_id = 0x0102A0FF;
    s.battery = 3700;
    s.charge = 99;
    const std::string bare_text =
        R"("ul_tdoa_data":{"pe_seq_no":515,"range_mm":-5,"tag":{"mac":"510000000101","lqi":200},)"
        R"("responder":{"mac":"510000000103","lqi":100},"reporter":{"mac":"510000000104"})";
    const std::string board_text =
        R"(,"board_version":3,"board_revision":1,"flags":"AB","firmware_id":"102A0FF","batt_voltage":3700)";
    const std::string bare = "0028"
                             "5100000001010203510000000103510000000104"
                             "FFFFFFFBC864";
    const std::string board = "030100AB0102A0FF0E74";
    const struct {
        tdoa_form form;
        std::string body;
        std::string text;
    } cases[] = {
        {tdoa_form::bare, "0E01011C00" + bare, bare_text + "}"},
        {tdoa_form::with_board, "0E01012600" + bare + board, bare_text + board_text + "}"},
        {tdoa_form::with_charge, "0E01012700" + bare + board + "63",
         bare_text + board_text + R"(,"percent_of_charge":99})"},
    };
    for (const auto& c : cases) {
        const uplink_message report = make_ul_tdoa(node_mac, 1, s, c.form);
        EXPECT_EQ(hex(report.body), c.body);
        EXPECT_EQ(report.content, c.text);
        EXPECT_EQ(report.to, outlet::proxy_input);
    }
}

TEST(sim_uplink, a_route_request_lists_its_requesters)
{
    const route_neighbour neighbours[] = {{device_mac(1, 5), 7}, {device_mac(1, 6), 255}};
    const uplink_message report = make_route(node_mac, 1, node_mac, neighbours);
    EXPECT_EQ(hex(report.body), "0E01011A00"
                                "000A5100000001020000"
                                "5100000001050007"
                                "51000000010600FF");
    EXPECT_EQ(report.content, R"("route_request":{"reporter":{"mac":"510000000102"},"requester":[)"
                              R"({"mac":"510000000105","lqi":  7},{"mac":"510000000106","lqi":255}]})");
}

TEST(sim_uplink, an_ota_page_request_is_not_meant_for_the_servers)
{
    const uplink_message request = make_ota_page_request(node_mac, 1, {0x0102A0FF, 0xAABBCCDD, 512, 3});
    EXPECT_EQ(hex(request.body), "0E01010E000010"
                                 "0102A0FFAABBCCDD02000003");
    EXPECT_EQ(request.to, outlet::none);
}

TEST(sim_uplink, flags_and_time_go_around_a_message)
{
    bytes message = make_sensor(node_mac, 1, bytes{0xAA}).body;
    set_flags(message, flag_ack | flag_direct);
    EXPECT_EQ(hex(view{message}.first(2)), "1631");
    const generation_time half{0x6553F100, 0x8000};
    EXPECT_EQ(half.milliseconds(), 500);
    EXPECT_EQ((generation_time{0, 0xFFFF}.milliseconds()), 999);
    EXPECT_EQ(hex(sent_with_time(message, 1, half)), "00020106006553F1008000" + hex(message));
}

} // namespace sim
