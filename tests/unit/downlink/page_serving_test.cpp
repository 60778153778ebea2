#include "downlink/page_serving.h"

#include "base/hex.h"
#include "firmware/ota.h"
#include "rtls-gateway.h"
#include "support/bridge_message_fixture.h"
#include "support/failing_new.h"
#include "support/page_request.h"

#include <string>

namespace rtls {

class page_serving : public bridge_message_fixture {
protected:
    page_serving() { introduce(sender_mac, sender_ip); }

    void store_page(uint16_t page_size, uint16_t page_number, const bytes_t& page)
    {
        ASSERT_TRUE(ota_set_firmware_page(rtls_gateway_get_ota(gateway), git_id, image_crc, page_size,
                                          page_number, page.data()));
    }

    bool send_page(const bytes_t& request)
    {
        return send_otapage_from_cache(server, *bridge, request, m_mac.data());
    }

    const bytes_t m_mac = hex(sender_mac);
};

TEST_F(page_serving, a_request_that_is_cut_short_is_refused)
{
    store_page(128, 0, ramp(128));
    const bytes_t whole = page_request(128, 0);
    for (size_t size = 1; size < whole.size(); size++)
        EXPECT_FALSE(send_page(slice(whole, 0, size))) << size;
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_TRUE(send_page(whole));
}

TEST_F(page_serving, an_answer_that_memory_is_too_short_for_is_left_to_the_servers)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    store_page(128, 0, ramp(128));
    const bytes_t request = page_request(128, 0);
    fail_next_allocations(1);
    EXPECT_FALSE(send_page(request));
    EXPECT_EQ(errors(), texts_t{"send_otapage_from_cache: out of memory!"});
    EXPECT_EQ(replies(), texts_t{});
}

TEST_F(page_serving, a_stored_page_goes_to_the_node)
{
    const bytes_t page = ramp(128, 0x80); // the framing's special bytes are among them
    store_page(128, 3, page);
    EXPECT_TRUE(send_page(page_request(128, 3)));
    EXPECT_EQ(replies(), texts_t{"0E0807008E" + to_hex(slice(page_request(128, 3), 5, 14)) + to_hex(page) +
                                 to_hex(hex(sender_ip))});
    EXPECT_EQ(errors(), texts_t{});
}

TEST_F(page_serving, a_page_that_the_bridge_cannot_take_is_not_counted_as_served)
{
    const auto& counted = server->counts.page_requests;
    store_page(128, 3, ramp(128));
    EXPECT_TRUE(send_page(page_request(128, 3)));
    EXPECT_EQ(counted[page_request_outcome::served].value(), 1U);
    bridge->unsent_messages.append(bytes_t(unsent_messages_limit - 128, 1));
    EXPECT_TRUE(send_page(page_request(128, 3))) << "the servers are not asked";
    EXPECT_EQ(counted[page_request_outcome::served].value(), 1U);
    EXPECT_EQ(counted[page_request_outcome::refused].value(), 1U);
}

TEST_F(page_serving, what_is_not_stored_is_not_served)
{
    store_page(128, 3, ramp(128));
    bytes_t other_id = page_request(128, 3);
    other_id[7] ^= 1;
    bytes_t other_crc = page_request(128, 3);
    other_crc[11] ^= 1;
    const struct {
        const char* given;
        bytes_t request;
    } cases[] = {
        {"another identifier", other_id},
        {"another CRC", other_crc},
        {"a page not set", page_request(128, 2)},
        {"a page past the end", page_request(128, 4)},
        {"a page size that is no multiple of 32", page_request(127, 0)},
        {"the largest numbers", page_request(65535, 65535)},
        {"a page far off", page_request(65504, 65535)},
    };
    for (const auto& c : cases)
        EXPECT_FALSE(send_page(c.request)) << c.given;
    EXPECT_EQ(replies(), texts_t{});
}

TEST_F(page_serving, a_page_too_large_for_a_node_is_not_passed_on)
{
    store_page(800, 0, ramp(800));
    EXPECT_TRUE(send_page(page_request(768, 0)));
    EXPECT_EQ(replies().size(), 1U);
    (void)lines("parsing");

    EXPECT_TRUE(receive(page_request(800, 0) + hex(sender_ip)));
    EXPECT_EQ(replies(), texts_t{});
    EXPECT_EQ(reports(), texts_t{}); // nor do the servers get the request
    EXPECT_EQ(lines("parsing"), (texts_t{"SLIP: MSG_GENERIC_SERVER_REQ: [14] in_buf_size:14  src:A7A8",
                                         "GENERIC: ERROR(GENERIC): msg too long, rcvd: 827"}));
}

TEST_F(page_serving, a_page_for_a_node_without_a_route_goes_to_the_connection_that_asked_alone)
{
    store_page(128, 0, ramp(128));
    remove_node("E4A2A3A4A5A6A7A8");
    add_node("E4A2A3A4A5A6A7A8", {});
    EXPECT_TRUE(send_otapage_from_cache(server, *other_bridge, page_request(128, 0), m_mac.data()));
    EXPECT_EQ(sent_to(other_bridge).size(), 1U);
    EXPECT_EQ(sent_to(bridge), texts_t{});
}

TEST_F(page_serving, a_page_goes_by_the_route_of_its_node_whoever_asked)
{
    store_page(128, 0, ramp(128));
    EXPECT_TRUE(send_otapage_from_cache(server, *other_bridge, page_request(128, 0), m_mac.data()));
    EXPECT_EQ(sent_to(other_bridge), texts_t{});
    EXPECT_EQ(sent_to(bridge).size(), 1U);
}

TEST_F(page_serving, a_page_for_a_node_that_is_gone_is_answered_all_the_same)
{
    store_page(128, 0, ramp(128));
    remove_node("E4A2A3A4A5A6A7A8");
    EXPECT_TRUE(send_page(page_request(128, 0)));
    EXPECT_EQ(replies(), texts_t{});
}

} // namespace rtls
