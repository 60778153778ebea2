#include "terminal/firmware_commands.h"

#include "base/bytes.h"
#include "rtls-gateway.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/operator_peer.h"
#include "support/sock.h"
#include "support/tcp_listener.h"
#include "support/temp_file.h"
#include "support/test_gateway.h"
#include "support/texts.h"
#include "support/wait.h"
#include "wire/node_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace rtls {

static constexpr mac_array sample_mac{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x1A, 0x2B};

static OTA_FIRMWARE_INFO_t sample_info()
{
    OTA_FIRMWARE_INFO_t info{};
    info.size = 0x1'0003'E8FF; // beyond 32 bits
    info.crc32 = 0xCAFE0123;
    info.git_ver = 0x0102A0FF;
    info.board_version = 3;
    info.board_revision = 14;
    info.page_size = 256;
    info.maximum_pages = 1024;
    return info;
}

static offered_image offered(const OTA_FIRMWARE_INFO_t& info)
{
    return {info.git_ver, info.crc32, info.size};
}

// --- Texts

TEST(firmware_texts, pages_are_rounded_up)
{
    const struct {
        size_t size;
        uint16_t page_size;
        size_t pages;
    } cases[] = {{0, 0, 0},
                 {1000, 0, 0},
                 {0, 256, 0},
                 {1, 256, 1},
                 {255, 256, 1},
                 {256, 256, 1},
                 {257, 256, 2},
                 {1000, 128, 8},
                 {1, 65535, 1},
                 {SIZE_MAX, 1, SIZE_MAX},
                 {SIZE_MAX, 2, SIZE_MAX / 2 + 1}};
    for (const auto& c : cases) {
        OTA_FIRMWARE_INFO_t info{};
        info.size = c.size;
        info.page_size = c.page_size;
        EXPECT_EQ(firmware_pages_number(info), c.pages) << c.size << " by " << c.page_size;
    }
}

TEST(firmware_texts, a_line_of_the_list)
{
    OTA_FIRMWARE_INFO_t info = sample_info();
    info.size = 1000;
    EXPECT_EQ(firmware_list_line(2, info), "    2    102A0FF   CAFE0123     1000         256       4         "
                                           "    3             14        1024\n");
    EXPECT_EQ(firmware_list_line(0, OTA_FIRMWARE_INFO_t{}),
              "    0          0          0        0           0       0             0              0         "
              "  0\n");
    EXPECT_STREQ(firmware_list_header,
                 "index     git id      crc32     size   page size   pages   brd version   brd revision   "
                 "max pages\n");
}

TEST(firmware_texts, the_paragraph_on_an_image)
{
    OTA_FIRMWARE_INFO_t info = sample_info();
    info.size = 1000;
    EXPECT_EQ(firmware_info_text(2, info),
              "index: 2\ngit id: 102A0FF\ncrc32: CAFE0123\nsize: 1000\npage size: 256\npages: 4\n"
              "board version: 3\nboard revision: 14\nmaximum pages: 1024\n");
}

// --- Answers, with a store and a terminal server

static bytes_t tag(const char* name)
{
    return {name, name + strlen(name) + 1};
}

// 1,000 bytes: board 3.14, version 0102A0FF, pages of 256 bytes, 1,024 at most.
static bytes_t sample_image()
{
    bytes_t image =
        ramp(500) + tag("@BoardVer") + hex("03 0E") + tag("@Firmware") + hex("01 02 A0 FF 01 00 04 00");
    image.resize(1000);
    return image;
}

class firmware_commands : public testing::Test {
protected:
    firmware_commands()
    {
        for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"})
            unsetenv(name); // our servers are on this machine
        zsock_set_rcvtimeo(m_win_server.get(), 5000);
        m_gateway.run_terminal_server();
        m_operator = std::make_unique<operator_peer>(m_gateway.terminal_port());
        (void)m_log.take();
    }

    // The answer to a command, whatever its length: all that comes before the next command's.
    std::string answer_to(const std::string& command)
    {
        constexpr char next[] = "unsubscribed * ok.\n";
        std::string text = m_operator->ask(command + "\n", "\n");
        text += m_operator->ask("sub-\n", next);
        if (text.ends_with(next))
            text.resize(text.size() - strlen(next));
        else
            ADD_FAILURE() << "the next command is not answered after " << command;
        return text;
    }

    void fetch_image()
    {
        const bytes_t image = sample_image();
        const temp_file file{"image.bin", {reinterpret_cast<const char*>(image.data()), image.size()}};
        ASSERT_EQ(answer_to("fw get " + file.url()), "Firmware downloaded. Index: 0\n");
    }

    // What the next request to the WIN server holds.
    bytes_t next_request()
    {
        const zmsg_ptr message{zmsg_recv(m_win_server.get())};
        zframe_t* frame = message ? zmsg_last(message.get()) : nullptr;
        return frame ? bytes_t{zframe_data(frame), zframe_data(frame) + zframe_size(frame)} : bytes_t{};
    }

    services& given() const { return *rtls_gateway_get_services(m_gateway.handle()); }

    log_capture m_log;
    test_gateway m_gateway;
    zsock_ptr m_win_server{zsock_new_router("@inproc://winserw_channel")};
    std::unique_ptr<operator_peer> m_operator;
};

TEST_F(firmware_commands, refusals)
{
    const struct {
        const char* command;
        const char* then;
    } cases[] = {
        {"fw", "Incorrect parameters!\n"},
        {"firmware", "Incorrect parameters!\n"},
        {"fw foo", "Incorrect parameters!\n"},
        {"FW FOO 1 2 3", "Incorrect parameters!\n"},
        {"fw get", "URL is missing!\n"},
        {"fw get http://127.0.0.1:1/x", "Failed to read firmware!\n"},
        {"fw get gopher://127.0.0.1:1/x", "Failed to read firmware!\n"},
        {"fw get file:///nonexistent", "Failed to read firmware!\n"},
        {"fw info", "INDEX are missing!\n"},
        {"fw info 0", "Incorrect INDEX value!\n"},
        {"fw del", "INDEX are missing!\n"},
        {"fw del 0", "Incorrect INDEX value!\n"},
        {"fw apply", "MAC are missing!\n"},
        {"fw apply 1a2b", "Node 000A not in nodes list\n"},
        {"fw set", "INDEX or MAC are missing!\n"},
        {"fw set 0", "INDEX or MAC are missing!\n"},
        {"fw set 0 1a2b", "Incorrect INDEX value!\n"},
        {"fw set 0 1a2b GW", "Incorrect INDEX value!\n"},
        {"fw set 0 1a2b 7 8", "Incorrect INDEX value!\n"},
    };
    for (const auto& c : cases)
        for (int round = 0; round < 2; ++round)
            EXPECT_EQ(answer_to(c.command), c.then) << c.command;
}

TEST_F(firmware_commands, a_list_shows_what_is_in_the_store)
{
    const std::string header = firmware_list_header;
    EXPECT_EQ(answer_to("fw list"), header);
    fetch_image();
    const std::string list = answer_to("FIRMWARE LIST");
    EXPECT_TRUE(list.starts_with(header + "    0    102A0FF ")) << list;
    EXPECT_TRUE(list.ends_with("     1000         256       4             3             14        1024\n"))
        << list;
    EXPECT_EQ(answer_to("fw list and more words"), list);
}

TEST_F(firmware_commands, apply_always_addresses_the_node_000A)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    m_gateway.add_node(hex("00 01 02 03 04 05 00 0A"));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(answer_to("fw apply 1a2b"), "Command sent successfully!\n");
        EXPECT_EQ(next_request(), hex("0E 08 00 00 02 00 11 00 01 02 03 04 05 00 0A"));
    }
}

// As while the gateway is being built or taken down.
TEST_F(firmware_commands, without_a_store_there_is_no_image)
{
    OTA_t* store = std::exchange(given().ota, nullptr);
    EXPECT_EQ(answer_to("fw list"), firmware_list_header);
    EXPECT_EQ(answer_to("fw get file:///nowhere"), "Failed to read firmware!\n");
    EXPECT_EQ(firmware_info(given(), "0"), "Incorrect INDEX value!\n");
    EXPECT_EQ(firmware_del(given(), "0"), "Incorrect INDEX value!\n");
    EXPECT_EQ(firmware_set(given(), *given().terminal_server, "0", "1a2b", nullptr),
              "Incorrect INDEX value!\n");
    given().ota = store;
}

// The words of the operators are the sub-command's own (see above); the functions take any.
TEST_F(firmware_commands, info_by_index)
{
    EXPECT_EQ(firmware_info(given(), "0"), "Incorrect INDEX value!\n");
    fetch_image();
    const std::string text = firmware_info(given(), "0");
    EXPECT_TRUE(text.starts_with("index: 0\ngit id: 102A0FF\ncrc32: ")) << text;
    EXPECT_TRUE(text.ends_with("size: 1000\npage size: 256\npages: 4\nboard version: 3\nboard revision: 14\n"
                               "maximum pages: 1024\n"))
        << text;
    EXPECT_EQ(firmware_info(given(), "1"), "Incorrect INDEX value!\n");
    EXPECT_EQ(firmware_info(given(), "3"), "Incorrect INDEX value!\n");
    EXPECT_EQ(firmware_info(given(), "zz"), "Incorrect INDEX value!\n");
}

TEST_F(firmware_commands, del_by_index)
{
    fetch_image();
    EXPECT_EQ(firmware_del(given(), "1"), "Incorrect INDEX value!\n");
    EXPECT_EQ(firmware_del(given(), "zz"), "Incorrect INDEX value!\n");
    EXPECT_EQ(answer_to("fw del 0"), "Incorrect INDEX value!\n") << "it means slot 222";
    EXPECT_EQ(firmware_del(given(), "0"), "Command sent successfully!\n");
    EXPECT_EQ(firmware_del(given(), "0"), "Incorrect INDEX value!\n");
}

TEST_F(firmware_commands, apply_by_mac)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    EXPECT_EQ(firmware_apply(given(), *given().terminal_server, "zz"), "Incorrect MAC value!\n");
    EXPECT_EQ(firmware_apply(given(), *given().terminal_server, "1a2c"), "Node 1A2C not in nodes list\n");
    EXPECT_EQ(firmware_apply(given(), *given().terminal_server, "1a2b"), "Command sent successfully!\n");
    EXPECT_EQ(next_request(), hex("0E 08 00 00 02 00 11 00 01 02 03 04 05 1A 2B"));
}

TEST_F(firmware_commands, set_by_index_and_mac)
{
    fetch_image();
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    OTA_FIRMWARE_INFO_t info{};
    ASSERT_TRUE(ota_get_firmware_info(given().ota, 0, &info));
    const struct {
        const char* index;
        const char* mac;
        const char* source;
        const char* then;
    } refused[] = {
        {"zz", "zz", "zz", "Incorrect INDEX value!\n"},
        {"0", "zz", "zz", "Incorrect MAC value!\n"},
        {"1", "1a2b", "zz", "Incorrect INDEX value!\n"},
        {"0", "1a2b", "zz", "Incorrect SOURSE value!\n"},
        {"0", "1a2c", "GW", "Node 1A2C not in nodes list\n"},
    };
    for (const auto& c : refused)
        EXPECT_EQ(firmware_set(given(), *given().terminal_server, c.index, c.mac, c.source), c.then);
    const struct {
        const char* source;
        std::optional<uint16_t> meant;
    } sent[] = {{nullptr, std::nullopt}, {"GW", 0}, {"gw", 0}, {"0", 0}, {"beef", 0xBEEF}};
    for (const auto& c : sent) {
        EXPECT_EQ(firmware_set(given(), *given().terminal_server, "0", "1a2b", c.source),
                  "Command sent the node successfully!\n");
        EXPECT_EQ(next_request(), make_set_request(offered(info), c.meant, sample_mac));
    }
}

TEST_F(firmware_commands, a_full_queue_fails_the_command)
{
    fetch_image();
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    while (firmware_apply(given(), *given().terminal_server, "1a2b") == "Command sent successfully!\n") {
    }
    EXPECT_EQ(firmware_apply(given(), *given().terminal_server, "1a2b"), "Failed to send command!\n");
    EXPECT_EQ(firmware_set(given(), *given().terminal_server, "0", "1a2b", nullptr),
              "Failed to send command!\n");
    EXPECT_EQ(m_log.messages("main"), texts_t(3, "Overflow winserw queue!"));
}

// The answer is addressed before the transfer; whoever leaves in between must not put it astray.
TEST_F(firmware_commands, leaving_during_a_download_disturbs_nobody)
{
    tcp_listener web;
    const std::string command = "fw get http://127.0.0.1:" + std::to_string(web.port()) + "/x\n";
    for (int round = 0; round < 3; ++round) {
        operator_peer leaving{m_gateway.terminal_port()};
        leaving.write(command);
        const int transfer = web.accept(); // the command is being run
        leaving.close();
        close(transfer);
        EXPECT_EQ(answer_to("fw"), "Incorrect parameters!\n");
    }
}

} // namespace rtls
