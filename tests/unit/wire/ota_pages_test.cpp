#include "wire/ota_pages.h"

#include "support/page_request.h"

#include <gtest/gtest.h>

namespace rtls {

static const bytes_t node_mac = hex("E4 A2 A3 A4 A5 A6 A7 A8");

TEST(ota_page_request, is_big_endian)
{
    const auto request = read_ota_page_request(page_request(0x0180, 0x0203));
    ASSERT_TRUE(request);
    EXPECT_EQ(request->git_id, git_id);
    EXPECT_EQ(request->crc32, image_crc);
    EXPECT_EQ(request->page_size, 0x0180);
    EXPECT_EQ(request->page_number, 0x0203);
}

TEST(ota_page_request, that_is_cut_short_is_none)
{
    const bytes_t whole = page_request(128, 3);
    ASSERT_EQ(whole.size(), 19U);
    for (size_t size = 0; size < whole.size(); size++)
        EXPECT_FALSE(read_ota_page_request(slice(whole, 0, size))) << size;
}

TEST(ota_response, frames_the_page_with_the_requests_fields_and_the_nodes_mac)
{
    const struct {
        uint16_t page_size;
        size_t size;
        const char* length;
    } cases[] = {{0, 27, "00 0E"}, {128, 155, "00 8E"}, {768, 795, "03 0E"}, {65535, 65562, "00 0D"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.page_size);
        const bytes_t request = page_request(c.page_size, 3);
        ASSERT_EQ(ota_response_size(c.page_size), c.size);
        bytes_t response(c.size, 0xEE);
        write_ota_response_frame(request, node_mac.data(), response);
        EXPECT_EQ(response, hex("0E 08 07") + hex(c.length) + slice(request, 5, 14) +
                                bytes_t(c.page_size, 0xEE) + node_mac);
    }
}

} // namespace rtls
