#include "firmware/firmware.h"
#include "firmware/image_download.h"
#include "support/bitwise_crc.h"
#include "support/http_responder.h"
#include "support/log_capture.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<uint8_t> counting_bytes(size_t size)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
    return bytes;
}

std::string as_text(const std::vector<uint8_t>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

// An image without a download.
FIRMWARE_t image_of(const std::vector<uint8_t>& bytes)
{
    FIRMWARE_t firmware;
    firmware.memory = allocate_image(bytes.size());
    std::ranges::copy(bytes, firmware.memory.get());
    firmware.size = bytes.size();
    firmware.version = 0x0102A0FF;
    return firmware;
}

gwMsgUpdateRequest_t request_for(uint16_t page)
{
    gwMsgUpdateRequest_t request{};
    std::memset(&request, 0xA5, sizeof request);
    request.num = page;
    return request;
}

constexpr uint8_t untouched_flag = 0xA5;

} // namespace

// --- download

TEST(firmware_download, record_describes_the_image)
{
    const auto bytes = counting_bytes(1000);
    http_responder server{{{"/dir/obn-node.0102A0FF.bin", {http_image(as_text(bytes))}}}};
    const std::string url = server.url("/dir/obn-node.0102A0FF.bin");
    log_capture log;
    const firmware_ptr firmware{firmware_get_from_url(url.c_str())};
    ASSERT_TRUE(firmware);
    EXPECT_EQ(std::vector(firmware->memory.get(), firmware->memory + firmware->size), bytes);
    EXPECT_EQ(firmware->crc32, crc_remainder(bytes));
    EXPECT_EQ(firmware->version, 0x0102A0FFu);
    EXPECT_STREQ(firmware->name, "obn-node.0102A0FF.bin");
    char line[200];
    std::snprintf(line, sizeof line,
                  "firmware image: obn-node.0102A0FF.bin crc: %04X version: 102A0FF len: 1000",
                  crc_remainder(bytes));
    EXPECT_THAT(log.messages("main"), ElementsAre(line));
}

TEST(firmware_download, version_stands_in_the_file_name)
{
    const struct {
        const char* name;
        uint32_t version;
        bool warned;
    } cases[] = {
        {"obn-node.0102A0FF.bin", 0x0102A0FF, false},
        {"obn-node.FFFFFFFF.bin", 0xFFFFFFFF, false},
        {"obn-node.00000000.bin", 0, false},
        {"OBN-NODE.0102a0ff.BIN.x", 0x0102A0FF, false},
        {"my-obn-node.0102A0FF.bin", 0x0102A0FF, false},
        {"obn-node.0102A0FF.bin.bak", 0x0102A0FF, false},
        {"obn-node.01G2A0FF.bin", 0x01, false}, // a character that is no digit ends the number
        {"obn-node.zzzzzzzz.bin", 0, false},
        {"obn-node.12.45678.bin", 0x12, false},
        {"obn-node.0x000012.bin", 0x12, false},
        {"obn-node.-0000001.bin", 0xFFFFFFFF, false},
        {"obn-node.1.2.bin", 0, true},
        {"obn-node.0102A0F.bin", 0, true},
        {"obn-node.0102A0FF1.bin", 0, true},
        {"obn-node.0102A0FFbin", 0, true},
        {"obn-node-0102A0FF.bin", 0, true},
        {"obn-node.0102A0FF.hex", 0, true},
        {"image.bin", 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const temp_file file{c.name, std::string(1, '\0')};
        log_capture log;
        const std::string url = file.url();
        const firmware_ptr firmware{firmware_get_from_url(url.c_str())};
        ASSERT_TRUE(firmware);
        EXPECT_EQ(firmware->version, c.version);
        char line[200];
        std::snprintf(line, sizeof line, "firmware image: %s crc: 0000 version: %04X len: 1", c.name,
                      c.version);
        if (c.warned)
            EXPECT_THAT(log.messages("main"), ElementsAre("cannot set firmware version", line));
        else
            EXPECT_THAT(log.messages("main"), ElementsAre(line));
    }
}

TEST(firmware_download, only_the_last_component_of_the_url_is_the_name)
{
    const struct {
        const char* path;
        const char* name;
        uint32_t version;
    } cases[] = {
        {"/obn-node.0102A0FF.bin/other.bin", "other.bin", 0},
        {"/obn-node.0102A0FF.bin/", "", 0},
        {"/get?file=obn-node.0102A0FF.bin", "get?file=obn-node.0102A0FF.bin", 0x0102A0FF},
        {"/obn-node.0102A0FF.bin?from=/tmp", "tmp", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        http_responder server{{{c.path, {http_image("abc")}}}};
        const std::string url = server.url(c.path);
        const firmware_ptr firmware{firmware_get_from_url(url.c_str())};
        ASSERT_TRUE(firmware);
        EXPECT_STREQ(firmware->name, c.name);
        EXPECT_EQ(firmware->version, c.version);
    }
}

TEST(firmware_download, the_name_outlives_the_url)
{
    const temp_file file{"image.bin", "abc"};
    auto url = std::make_unique<std::string>(file.url());
    const firmware_ptr firmware{firmware_get_from_url(url->c_str())};
    ASSERT_TRUE(firmware);
    url->assign(url->size(), 'x'); // what stands there later
    EXPECT_STREQ(firmware->name, "image.bin");
    url.reset();
    EXPECT_STREQ(firmware->name, "image.bin");
}

TEST(firmware_download, crc_is_the_nodes_own)
{
    const struct {
        std::string image;
        uint32_t crc32;
    } cases[] = {
        {"", 0},
        {std::string(1, '\0'), 0},
        {std::string(600, '\0'), 0},
        {std::string(1, '\1'), 0x77073096},
        {std::string(1, '\xFF'), 0x2D02EF8D},
        {"123456789", 0x2DFD2D88},
    };
    for (const auto& c : cases) {
        const temp_file file{"image.bin", c.image};
        const std::string url = file.url();
        const firmware_ptr firmware{firmware_get_from_url(url.c_str())};
        ASSERT_TRUE(firmware);
        EXPECT_EQ(firmware->size, c.image.size());
        EXPECT_EQ(firmware->crc32, c.crc32);
        EXPECT_EQ(firmware->crc32, crc_remainder(c.image));
    }
}

TEST(firmware_download, error_page_with_a_length_is_an_image_too)
{
    http_responder server{{{"/image.bin", {"HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone"}}}};
    const std::string url = server.url("/image.bin");
    const firmware_ptr firmware{firmware_get_from_url(url.c_str())};
    ASSERT_TRUE(firmware);
    EXPECT_EQ(firmware->size, 4u);
}

TEST(firmware_download, failure_gives_no_record)
{
    constexpr char refused[] = "curl_easy_perform failed: Failed writing received data to disk/application";
    const struct {
        const char* given;
        std::string answer;
        std::vector<std::string> logged;
    } cases[] = {
        {"no length", http_ok("", "a"), {refused}},
        {"absurd length",
         http_ok("Content-Length: 99999999999999999999999\r\n", "a"),
         {"headerCallback: out of memory!", refused}},
        {"late length",
         http_ok("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                 "5\r\nabcde\r\n0\r\nContent-Length: 1\r\n\r\n"),
         {refused}},
        {"body missing",
         http_ok("Content-Length: 9\r\n", "abc"),
         {"curl_easy_perform failed: Transferred a partial file"}},
    };
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        http_responder server{{{"/image.bin", {c.answer}}}};
        EXPECT_EQ(firmware_get_from_url(server.url("/image.bin").c_str()), nullptr);
        EXPECT_EQ(log.messages("main"), c.logged);
    }
}

// --- pages

TEST(firmware_msg_pack, pages_of_images)
{
    const struct {
        size_t size;
        uint16_t page;
        uint16_t len;
        uint8_t flag;
        bool warned;
    } cases[] = {
        {1000, 0, 512, untouched_flag, false},
        {1000, 1, 488, EOF_FIRMWARE, false},
        {1000, 2, 0, EOF_FIRMWARE, true},
        {1000, 3, 0, EOF_FIRMWARE, true},
        {1000, 65535, 0, EOF_FIRMWARE, true},
        {1024, 0, 512, untouched_flag, false},
        {1024, 1, 512, untouched_flag, false}, // the last one, yet full
        {1024, 2, 0, EOF_FIRMWARE, true},
        {511, 0, 511, EOF_FIRMWARE, false},
        {512, 0, 512, untouched_flag, false},
        {512, 1, 0, EOF_FIRMWARE, true},
        {513, 0, 512, untouched_flag, false},
        {513, 1, 1, EOF_FIRMWARE, false},
        {1, 0, 1, EOF_FIRMWARE, false},
        {0, 0, 0, EOF_FIRMWARE, true},
        {size_t{65536} * 512, 65535, 512, untouched_flag, false}, // the last page number there is
        {size_t{65536} * 512 - 1, 65535, 511, EOF_FIRMWARE, false},
        {size_t{65535} * 512, 65535, 0, EOF_FIRMWARE, true},
        {size_t{128} * 512 + 5, 128, 5, EOF_FIRMWARE, false}, // past 16 bits
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "page " << c.page << " of " << c.size << " bytes");
        auto bytes = counting_bytes(c.size);
        auto firmware = image_of(bytes);
        auto request = request_for(c.page);
        log_capture log;
        EXPECT_TRUE(firmware_msg_pack(&firmware, &request));
        EXPECT_EQ(+request.len, c.len);
        EXPECT_EQ(request.flag, c.flag);
        EXPECT_EQ(+request.ver, 0x0102A0FFu);
        EXPECT_EQ(+request.num, c.page);
        EXPECT_EQ(+request.msgType, 0xA5A5);
        if (c.warned) {
            EXPECT_THAT(log.messages("main"), ElementsAre("error seek: size:" + std::to_string(c.size) +
                                                          " want get: " + std::to_string(c.page) + " num"));
            continue;
        }
        EXPECT_THAT(log.messages("main"), IsEmpty());
        std::vector<uint8_t> page(512, 0xFF);
        std::copy_n(bytes.data() + size_t{c.page} * 512, c.len, page.data());
        EXPECT_EQ(std::vector(std::begin(request.buf), std::end(request.buf)), page);
        EXPECT_EQ(+request.crc32, crc_remainder(page)) << "over the padding, too";
    }
}

TEST(firmware_msg_pack, without_an_image_the_flag_says_so)
{
    auto request = request_for(3);
    log_capture log;
    EXPECT_TRUE(firmware_msg_pack(nullptr, &request));
    EXPECT_EQ(request.flag, ENO_FIRMWARE);
    EXPECT_EQ(+request.len, 0);
    EXPECT_EQ(+request.num, 3);
    EXPECT_THAT(log.messages("main"), ElementsAre("firmware_msg_pack: no firmware!"));
}

// --- release

TEST(firmware_destroy, takes_null_and_leaves_null)
{
    log_capture log;
    void* p_firmware = new FIRMWARE_t{};
    firmware_destroy(&p_firmware);
    EXPECT_EQ(p_firmware, nullptr);
    firmware_destroy(&p_firmware);
    EXPECT_EQ(p_firmware, nullptr);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

} // namespace rtls
