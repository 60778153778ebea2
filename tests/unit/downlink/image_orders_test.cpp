// The proxy's two orders to fetch a firmware image: the announced one and the one for the store.
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "rtls-gateway.h"
#include "support/bitwise_crc.h"
#include "support/proxy_fixture.h"
#include "support/temp_file.h"

namespace rtls {

using image_orders = proxy_fixture;

namespace {

// As a little-endian machine prints a big-endian word that it has not converted.
std::string as_in_memory(uint32_t value)
{
    return hex32(__builtin_bswap32(value));
}

std::string announcement(uint32_t crc, const std::string& url)
{
    return digits("080D 01020304") + hex32(crc) + hex16(url.size()) + hex_of(url);
}

std::string upload_order(uint32_t git_ver, uint32_t crc, const std::string& url)
{
    return "0012" + hex32(git_ver) + hex32(crc) + hex16(url.size()) + hex_of(url);
}

using namespace std::string_literals;
const std::string image = "an image of some board"s + "@BoardVer\0\x05\x06"s +
                          "@Firmware\0\xDE\xAD\xBE\xEF\x00\x40\x01\x00"s + "and the rest";

} // namespace

TEST_F(image_orders, an_announced_image_is_adopted_when_its_crc_agrees)
{
    const temp_file file{"image.bin", image};
    WIN_CLIENT_t* bridges[] = {add_bridge("0000000001"), add_bridge("0000000002")};
    const std::string update = "UPDATE: send cmd: MSG_UPDATE_CMD to brige: 0.0.0.0";
    for (const uint32_t crc : {0u, crc_remainder(image)}) {
        for (WIN_CLIENT_t* bridge : bridges)
            bridge->firmware_updated = true;
        rtls_gateway_set_firmware(gateway, nullptr);
        EXPECT_EQ(printed_by(announcement(crc, file.url())),
                  (texts_t{"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: " + as_in_memory(crc) +
                               " url: " + file.url(),
                           update, update}));
        const auto* firmware = static_cast<FIRMWARE_t*>(rtls_gateway_get_firmware(gateway));
        ASSERT_NE(firmware, nullptr);
        EXPECT_EQ(firmware->size, image.size());
        EXPECT_EQ(firmware->crc32, crc_remainder(image));
        for (WIN_CLIENT_t* bridge : bridges) {
            EXPECT_EQ(sent_to(bridge), texts_t{"180100"});
            EXPECT_FALSE(bridge->firmware_updated);
        }
    }
}

TEST_F(image_orders, an_image_that_contradicts_its_announcement_leaves_no_firmware)
{
    const temp_file file{"image.bin", image};
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    EXPECT_TRUE(process(announcement(0, file.url())));
    EXPECT_NE(rtls_gateway_get_firmware(gateway), nullptr);
    (void)sent_to(bridge);
    (void)m_log.take();
    const uint32_t crc = standard_crc(image); // not the nodes' rule
    EXPECT_EQ(printed_by(announcement(crc, file.url())),
              (texts_t{"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: " + as_in_memory(crc) +
                           " url: " + file.url(),
                       "PROXY: MSG_FW_IMAGE_AVAIL_IND bad crc32 sum: s:" + as_in_memory(crc) +
                           " d:" + hex32(crc_remainder(image)) + ", firmware removed"}));
    EXPECT_EQ(rtls_gateway_get_firmware(gateway), nullptr);
    EXPECT_EQ(sent_to(bridge), texts_t{});
}

TEST_F(image_orders, an_image_that_cannot_be_fetched_changes_nothing)
{
    const temp_file file{"image.bin", image};
    EXPECT_TRUE(process(announcement(0, file.url())));
    const void* before = rtls_gateway_get_firmware(gateway);
    (void)m_log.take();
    const std::string url = "file:///nowhere/obn-node.00000001.bin";
    EXPECT_EQ(printed_by(announcement(0, url)),
              (texts_t{"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: 00000000 url: " + url,
                       "PROXY: MSG_FW_IMAGE_AVAIL_IND cannot get firmware from: " + url}));
    EXPECT_EQ(rtls_gateway_get_firmware(gateway), before);
}

TEST_F(image_orders, an_announcement_must_measure_what_it_says)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_FW_IMAGE_AVAIL_IND): msg ";
    const std::string head = digits("080D 01020304 00000000");
    for (size_t size = 11; size <= 13; ++size)
        EXPECT_EQ(logged_by((head + "0001000000").substr(0, 2 * size)),
                  texts_t{error + "too short " + std::to_string(size)});
    const struct {
        size_t size;
        const char* len;
        const char* then;
    } cases[] = {
        {14, "0001", "wrong size rcvd:14  expected:13"},
        {14, "0003", "wrong size rcvd:14  expected:15"},
        {14, "0200", "wrong size rcvd:14  expected:524"}, // little-endian
        {14, "FFFF", "wrong size rcvd:14  expected:65547"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(logged_by(head + c.len + repeated("61", c.size - 12)), texts_t{error + c.then});
}

TEST_F(image_orders, an_upload_order_must_measure_what_it_says)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_OTA_UPLOAD_FW): msg ";
    const std::string head = digits("0012 01020304 00000000");
    for (size_t size = 11; size <= 12; ++size)
        EXPECT_EQ(logged_by((head + "0000").substr(0, 2 * size)),
                  texts_t{error + "too short " + std::to_string(size)});
    const struct {
        size_t size;
        const char* len;
        const char* then;
    } cases[] = {
        {13, "0000", "wrong size rcvd:13  expected:12"},
        {13, "0002", "wrong size rcvd:13  expected:14"},
        {13, "0100", "wrong size rcvd:13  expected:268"}, // little-endian
        {13, "FFFF", "wrong size rcvd:13  expected:65547"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(logged_by(head + c.len + repeated("61", c.size - 12)), texts_t{error + c.then});
}

TEST_F(image_orders, an_ordered_image_is_stored_when_both_expectations_are_met)
{
    const temp_file file{"image.bin", image};
    const uint32_t crc = standard_crc(image);
    const struct {
        const char* given;
        uint32_t git_ver, crc;
        const char* then;
    } cases[] = {
        {"both agree", 0xDEADBEEF, crc, "PROXY: Firmware downloaded. Index: 0\n"},
        {"another version", 0xDEADBEEE, crc, "PROXY: Failed to read firmware!"},
        {"another crc", 0xDEADBEEF, crc + 1, "PROXY: Failed to read firmware!"},
        {"zero is a version like others", 0, crc, "PROXY: Failed to read firmware!"},
        {"zero is a crc like others", 0xDEADBEEF, 0, "PROXY: Failed to read firmware!"},
        {"the download's crc", 0xDEADBEEF, crc_remainder(image), "PROXY: Failed to read firmware!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(printed_by(upload_order(c.git_ver, c.crc, file.url())),
                  (texts_t{"PROXY: MSG_OTA_UPLOAD_FW mgd: " + hex32(c.git_ver) + " crc: " + hex32(c.crc) +
                               " url: " + file.url(),
                           c.then}));
    }
    OTA_FIRMWARE_INFO_t info{};
    EXPECT_TRUE(ota_get_firmware_info(rtls_gateway_get_ota(gateway), 0, &info));
    EXPECT_EQ(info.git_ver, 0xDEADBEEF);
    EXPECT_FALSE(ota_get_firmware_info(rtls_gateway_get_ota(gateway), 1, &info));
}

TEST_F(image_orders, an_url_ends_at_a_zero_byte)
{
    const temp_file file{"image.bin", image};
    const std::string url = file.url() + "\0.more"s;
    EXPECT_EQ(printed_by(upload_order(0xDEADBEEF, standard_crc(image), url)).back(),
              "PROXY: Firmware downloaded. Index: 0\n");
}

TEST_F(image_orders, an_order_with_an_unreachable_url_is_reported)
{
    const std::string url = "file:///nowhere";
    EXPECT_EQ(printed_by(upload_order(1, 2, url)).back(), "PROXY: Failed to read firmware!");
    EXPECT_EQ(printed_by(upload_order(1, 2, "gopher://127.0.0.1/")).back(),
              "PROXY: Failed to read firmware!");
}

} // namespace rtls
