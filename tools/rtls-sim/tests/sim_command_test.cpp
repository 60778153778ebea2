#include "rtls-sim/command.h"

#include "rtls-sim/image.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

namespace sim {

static const std::string mac = "E45E510000000102";

static std::string made(const std::string& line)
{
    const parsed_command command = parse_command(split_words(line));
    return command.error.empty() ? hex(command.message) : "error: " + command.error;
}

TEST(sim_command, words_become_messages)
{
    const struct {
        std::string line;
        std::string message;
    } cases[] = {
        {"reboot 0102", "080E000006000100020000" + mac},
        {"reboot e45e510000000102", "080E000006000100020000" + mac},
        {"conf 0102", "08043C050101000000000000000000000000" + mac},
        {"conf 0102 role=129 rf=1 rngf=2 sl=3 x=-1 y=258 z=65538",
         "080401028103FFFFFFFF0000010200010002" + mac},
        {"ack 0102 9", "081009" + mac},
        {"ack 0102", "081000" + mac},
        {"generic 0102 0063AA 7", "080E0700030063AA" + mac},
        {"sensor 0102 AABB", "0815000002AABB" + mac},
        {"conf-sensor 0102 AABB", "0816000002AABB" + mac},
        {"tdoa 0102 AABB", "0817000002AABB" + mac},
        {"data 0102 AABB 5", "0800050002AABB" + mac + mac},
        {"ota-set 0102 0102A0FF:AABBCCDD:5000", "080E000010000E200C0102A0FFAABBCCDD00001388" + mac},
        {"ota-set 0102 0102A0FF:AABBCCDD:5000 gw", "080E000012000E200E0102A0FFAABBCCDD000013880000" + mac},
        {"ota-set 0102 0102A0FF:AABBCCDD:5000 0a0b", "080E000012000E200E0102A0FFAABBCCDD000013880A0B" + mac},
        {"ota-apply 0102", "080E0000020011" + mac},
        {"upload 0102A0FF AABBCCDD http://x", "00120102A0FFAABBCCDD0008687474703A2F2F78"},
        {"fw-avail 1 0 http://x", "080D00000001000000000008687474703A2F2F78"},
        {"raw 0801aabb", "0801AABB"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(made(c.line), c.message) << c.line;
}

TEST(sim_command, wrong_words_are_answered_not_sent)
{
    for (const char* line : {"",
                             "fly 0102",
                             "reboot",
                             "reboot 01",
                             "reboot zz00",
                             "conf 0102 role",
                             "conf 0102 role=x",
                             "conf 0102 height=3",
                             "ack 0102 256",
                             "generic 0102 ABC",
                             "generic 0102 AB 300",
                             "ota-set 0102",
                             "ota-set 0102 1:2",
                             "ota-set 0102 1:2:3 here",
                             "ota-set 0102 1:2:3 12345",
                             "upload 1 2",
                             "upload x 2 http://x",
                             "raw",
                             "raw 0",
                             "page 0102 /nowhere 1"})
        EXPECT_EQ(made(line).substr(0, 7), "error: ") << line;
}

TEST(sim_command, every_command_is_in_the_help)
{
    const std::string help = "\n" + std::string{command_help()};
    for (const char* word : {"reboot", "conf", "ack", "generic", "sensor", "conf-sensor", "tdoa", "data",
                             "ota-set", "ota-apply", "page", "upload", "fw-avail", "raw"})
        EXPECT_NE(help.find(std::string{"\n  "} + word + " "), std::string::npos) << word;
}

TEST(sim_command, an_image_is_named_by_its_numbers)
{
    const auto request = parse_ota_request("0102A0FF:AABBCCDD:5000:256");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->order.git_id, 0x0102A0FFU);
    EXPECT_EQ(request->order.crc, 0xAABBCCDDU);
    EXPECT_EQ(request->order.size, 5000U);
    EXPECT_EQ(request->page_size, 256);
    EXPECT_FALSE(parse_ota_request("1:2:3")->page_size);
    for (const char* bad : {"", "1:2", "1:2:3:4:5", "g:2:3", "1:2:x", "1:2:3:70000"})
        EXPECT_FALSE(parse_ota_request(bad)) << bad;
}

TEST(sim_command, the_last_page_is_filled_up)
{
    const bytes image = {1, 2, 3, 4, 5};
    const ota_page_id second{0x0102A0FF, 0xAABBCCDD, 4, 1};
    EXPECT_EQ(hex(page_command(*parse_mac("0102"), 9, second, image)),
              "080E09001200100102A0FFAABBCCDD0004000105FFFFFF" + mac);
}

TEST(sim_command, a_page_comes_from_an_image_file)
{
    image_traits traits;
    traits.size = 200;
    traits.page_size = 32;
    const bytes image = make_image(traits);
    const rtls::temp_file file{"image.bin"};
    ASSERT_TRUE(write_file(file.path(), image));
    const ota_page_id first{traits.git_id, crc32(image), 32, 1};
    EXPECT_EQ(made("page 0102 " + std::string{file.path()} + " 1"),
              hex(page_command(*parse_mac("0102"), 0, first, image)));
}

} // namespace sim
