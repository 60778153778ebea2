// Firmware pages on their way down to a node, which the store keeps for others.
#include "base/hex.h"
#include "downlink/page_interception.h"
#include "firmware/ota.h"
#include "rtls-gateway.h"
#include "support/proxy_fixture.h"

#include <memory>

namespace rtls {

namespace {

class page_interception : public proxy_fixture {
protected:
    // A generic request that carries `page_size` bytes of page, and says that its payload is `total_len`
    // long.
    static std::string page_request_of(size_t page_size, size_t total_len, size_t payload_bytes)
    {
        const std::string head = digits("0010 0A0B0C0D 11223344") + hex16(page_size) + "0000";
        std::string payload = head + repeated("5A", payload_bytes);
        payload.resize(2 * payload_bytes);
        return digits("0E08 00") + hex16(total_len) + payload + mac;
    }
    bool intercepts(const std::string& request)
    {
        const bytes_t bytes = hex(request);
        return firmware_interception(server, bytes.data(), bytes.size());
    }
    // Page 0 of the image that the requests are of, or "none".
    std::string stored_page(uint32_t page_size)
    {
        bytes_t page(page_size);
        void* p_ota = rtls_gateway_get_ota(gateway);
        return ota_get_firmware_page(p_ota, 0x0A0B0C0D, 0x11223344, page_size, 0, page.data()) ? to_hex(page)
                                                                                               : "none";
    }
};

} // namespace

TEST_F(page_interception, a_whole_page_is_stored)
{
    const struct {
        const char* given;
        size_t page_size, total_len;
        bool then;
    } cases[] = {
        {"one byte less than the page", 64, 77, false},
        {"exactly the page", 64, 78, true},
        {"one byte more than the page", 64, 79, true},
        {"another size that the store takes", 32, 46, true},
        {"a size that the store refuses", 33, 47, false},
        {"no payload behind the head", 0, 14, false},
        {"an empty page", 0, 15, true},
        {"a size that 16 bits cannot add to", 65535, 78, false},
    };
    const auto& seen = server->counts.pages_seen;
    uint64_t stored = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(intercepts(page_request_of(c.page_size, c.total_len, c.total_len)), c.then);
        stored += c.then ? 1 : 0;
        EXPECT_EQ(seen[page_seen_outcome::stored].value(), stored);
        EXPECT_EQ(errors(), texts_t{});
    }
    EXPECT_EQ(seen[page_seen_outcome::refused].value(), 1U); // the others carry no page
}

TEST_F(page_interception, only_page_commands_are_looked_at)
{
    const std::string rest = digits("0A0B0C0D 11223344 0020 0000") + repeated("5A", 32) + mac;
    for (const char* command : {"0011", "1000", "0110", "0000", "100F"})
        EXPECT_FALSE(intercepts("0E08 00 002E" + (command + rest)));
    EXPECT_EQ(stored_page(32), "none");
    EXPECT_TRUE(intercepts("0E08 00 002E 0010" + rest));
    EXPECT_EQ(stored_page(32), repeated("5A", 32));
}

TEST_F(page_interception, what_the_bytes_at_hand_do_not_hold_is_not_read)
{
    const std::string request = page_request_of(64, 78, 78);
    const size_t whole = 19 + 64;
    for (size_t size = 0; size < whole; ++size) {
        const bytes_t bytes = hex(request.substr(0, 2 * size));
        const uint8_t nothing = 0;
        EXPECT_FALSE(firmware_interception(server, size == 0 ? &nothing : bytes.data(), size)) << size;
    }
    EXPECT_TRUE(intercepts(request.substr(0, 2 * whole)));
}

TEST_F(page_interception, without_a_store_nothing_is_kept)
{
    const uint8_t zero = 0;
    const auto homeless = std::make_unique<WIN_SERVER_t>();
    EXPECT_FALSE(firmware_interception(homeless.get(), &zero, 1));
    EXPECT_EQ(errors().back(), "firmware_interception: rtls_gateway_get_ota returns NULL!");
}

TEST_F(page_interception, a_page_is_stored_on_its_way_even_if_the_bridge_is_gone)
{
    add_node(mac, {add_bridge("0000000001"), false, false});
    disconnect("0000000001");
    std::string request = page_request_of(64, 78, 78);
    request.replace(0, 4, "080E"); // as the proxy writes it
    EXPECT_TRUE(process(request));
    EXPECT_EQ(stored_page(64), repeated("5A", 64));
}

TEST_F(page_interception, a_page_for_a_stranger_and_a_page_in_another_type_are_not_stored)
{
    std::string request = page_request_of(64, 78, 78);
    request.replace(0, 4, "080E");
    EXPECT_TRUE(process(request)); // the node is not known yet
    EXPECT_EQ(stored_page(64), "none");
    fresh_node({add_bridge("0000000001"), false, false});
    request.replace(0, 4, "0815");
    EXPECT_TRUE(process(request));
    EXPECT_EQ(stored_page(64), "none");
}

} // namespace rtls
