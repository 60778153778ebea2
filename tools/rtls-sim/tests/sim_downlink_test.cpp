#include "rtls-sim/downlink.h"

#include <gtest/gtest.h>

namespace sim {

static const std::string mac_hex = "E45E510000000102";
static const std::string ip_hex = "FE80000000000000E65E510000000102";

static downlink_message read_hex(const std::string& text)
{
    const bytes message = *from_hex(text);
    return read_downlink(message);
}

struct form {
    const char* given;
    std::string message;
    msg type;
    delivery way;
    const char* shown;
};

static std::vector<form> forms()
{
    const std::string config = "3C050107"
                               "FFFFFFFE"
                               "00000003"
                               "00000004";
    return {
        {"a prefix", "02810100F0", msg::prefix_response, delivery::broadcast, "RPL prefix 0001 version 240"},
        {"an acknowledgement", "100809" + ip_hex, msg::rest_ack, delivery::direct, "ack seq 9"},
        {"an update command", "180100", msg::update_command, delivery::broadcast, "firmware update command"},
        {"a configuration", "0408" + config + ip_hex, msg::conf_node, delivery::direct,
         "configure: fixed rf 60 rngf 5 sl 07 xyz -2,3,4"},
        {"a wrapped configuration", "0008000012" + std::string{"0408"} + config + mac_hex + ip_hex,
         msg::conf_node, delivery::wrapped, "configure: fixed rf 60 rngf 5 sl 07 xyz -2,3,4"},
        {"a reboot", "0E08000006000100020000" + ip_hex, msg::generic_down, delivery::direct,
         "generic seq 0: reboot"},
        {"a wrapped reboot with direct mask", "002800000B0E08000006000100020000" + mac_hex + ip_hex,
         msg::generic_down, delivery::wrapped_direct, "generic seq 0: reboot"},
        {"an unknown request", "0E080700020063" + ip_hex, msg::generic_down, delivery::direct,
         "generic seq 7: 2 bytes 0063"},
        {"a sensor request", "1508010001AA" + ip_hex, msg::sensor_request, delivery::direct,
         "sensor request seq 1: AA"},
        {"a sensor configuration", "1608010001AA" + ip_hex, msg::conf_sensor, delivery::direct,
         "sensor configuration seq 1: AA"},
        {"a wrapped schedule", "00080000061708010001AA" + mac_hex + ip_hex, msg::tdoa_schedule,
         delivery::wrapped, "TDOA schedule seq 1: AA"},
        {"node data", "0008050002CAFE" + mac_hex + ip_hex, msg::node_data, delivery::direct,
         "node data seq 5: CAFE"},
        {"wrapped node data", "000800000F0008050002CAFE" + mac_hex + ip_hex, msg::node_data,
         delivery::wrapped, "node data seq 5: CAFE"},
        {"an order to fetch", "0E08000010000E200C0102A0FFAABBCCDD00001388" + ip_hex, msg::generic_down,
         delivery::direct, "generic seq 0: OTA set: git 0102A0FF crc AABBCCDD size 5000 source passive"},
        {"an order to fetch from the gateway", "0E08000012000E200E0102A0FFAABBCCDD000013880000" + ip_hex,
         msg::generic_down, delivery::direct,
         "generic seq 0: OTA set: git 0102A0FF crc AABBCCDD size 5000 source 0000"},
        {"a page", "0E0801001000100102A0FFAABBCCDD00020007BEEF" + ip_hex, msg::generic_down, delivery::direct,
         "generic seq 1: OTA page 7 of git 0102A0FF, 2 bytes"},
    };
}

TEST(sim_downlink, every_form_is_taken_apart)
{
    for (const form& c : forms()) {
        SCOPED_TRACE(c.given);
        const downlink_message message = read_hex(c.message);
        EXPECT_TRUE(message.valid);
        EXPECT_EQ(message.type, code(c.type));
        EXPECT_EQ(message.way, c.way);
        EXPECT_EQ(describe(message), c.shown);
        const bool to_a_node = c.way != delivery::broadcast;
        const bool by_mac =
            c.way == delivery::wrapped || c.way == delivery::wrapped_direct || c.type == msg::node_data;
        EXPECT_EQ(hex(message.ip), to_a_node ? ip_hex : std::string(32, '0'));
        EXPECT_EQ(hex(message.mac), by_mac ? mac_hex : std::string(16, '0'));
    }
}

TEST(sim_downlink, a_message_cut_or_stretched_anywhere_is_not_valid)
{
    for (const form& c : forms()) {
        bytes message = *from_hex(c.message);
        for (size_t size = 0; size < message.size(); ++size) {
            const downlink_message cut = read_downlink(view{message}.first(size));
            EXPECT_FALSE(cut.valid) << c.given << " cut to " << size;
            EXPECT_FALSE(describe(cut).empty());
        }
        message.push_back(0);
        EXPECT_FALSE(read_downlink(message).valid) << c.given;
    }
}

TEST(sim_downlink, an_echo_comes_back_with_its_time)
{
    EXPECT_EQ(describe(read_hex("0000170102")), "ping echo seq 23");
    EXPECT_EQ(describe(read_hex("00020105006553F10080000000170102")), "ping echo seq 23");
}

TEST(sim_downlink, the_role_says_how_positions_are_ordered)
{
    const auto network = read_config(*from_hex("01020304FFFFFFFE0000000300010002"));
    const auto link = read_config(*from_hex("01028304FEFFFFFF0300000002000100"));
    ASSERT_TRUE(network && link);
    for (const node_config& config : {*network, *link}) {
        EXPECT_EQ(config.x, -2);
        EXPECT_EQ(config.y, 3);
        EXPECT_EQ(config.z, 0x00010002);
    }
    EXPECT_EQ(network->role, 0x03);
    EXPECT_EQ(link->role, 0x83);
    EXPECT_FALSE(read_config(bytes(15)));
    EXPECT_FALSE(read_config(bytes(17)));
}

TEST(sim_downlink, orders_and_pages_are_exact)
{
    EXPECT_FALSE(read_ota_order(*from_hex("000E210C0102A0FFAABBCCDD00001388")));
    EXPECT_FALSE(read_ota_order(*from_hex("000E200D0102A0FFAABBCCDD0000138800")));
    EXPECT_FALSE(read_ota_order(*from_hex("000E200E0102A0FFAABBCCDD00001388")));
    EXPECT_FALSE(read_ota_page(*from_hex("00100102A0FFAABBCCDD00030007BEEF")));
    EXPECT_FALSE(read_ota_page(*from_hex("00110102A0FFAABBCCDD00020007BEEF")));
}

} // namespace sim
