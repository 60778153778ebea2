// What is said where memory runs out: the one line in the log that explains why something is missing. The
// daemon goes on, and does the same thing when it has memory again.
#include "downlink/win_server_pub_sub_proxy.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "link/sending.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "server/supervision.h"
#include "server/win_server.h"
#include "support/bridge_message_fixture.h"
#include "support/failing_new.h"
#include "support/temp_file.h"
#include "terminal/terminal_server.h"
#include "uplink/messages.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace rtls {

namespace {

class out_of_memory : public bridge_message_fixture {
public:
    // What the calls are given.
    WIN_SERVER_t* win() { return server; }
    void* given_gateway() { return gateway; }
    zconfig_t* config() { return rtls_gateway_get_config(gateway); }
    const temp_file file{"gateway.conf", gateway_config{}.text()};
    const bytes_t large = ramp(5000);
    bytes_t upload_order = hex("0012 01020304 00000000 0001 61"); // its URL has one character

protected:
    ~out_of_memory() override { fail_next_allocations(0); }
    void SetUp() override
    {
        if (!allocations_can_fail())
            GTEST_SKIP() << "the sanitizer owns the operators";
    }
};

struct failing_call {
    const char* text;
    // Makes the first allocation fail; true when it answers as without memory.
    bool (*fails)(out_of_memory& with);
};

using given = out_of_memory;

const failing_call calls[] = {
    {"rtls_gateway_new", [](given& w) { return !rtls_gateway_new(w.file.path()); }},
    {"win_server_new", [](given& w) { return !win_server_new(w.config(), w.given_gateway()); }},
    {"terminal_server_new", [](given& w) { return !terminal_server_new(w.config(), w.given_gateway()); }},
    {"nodes_container_new", [](given&) { return !nodes_container_new(); }},
    {"ota_new", [](given&) { return !ota_new(2); }},
    {"firmware_get_from_url", [](given&) { return !firmware_get_from_url("file:///nowhere"); }},
    {"win_server_copy_clients", [](given& w) { return win_server_copy_clients(*w.win()).empty(); }},
    {"data_to_win_client",
     [](given& w) { return !data_to_win_client(w.win(), nullptr, w.large.data(), 5000); }},
    {"process_data_from_pub_sub_proxy",
     [](given& w) {
         return process_data_from_pub_sub_proxy(w.win(), w.upload_order.data(), w.upload_order.size());
     }},
};

} // namespace

TEST_F(out_of_memory, is_logged_by_the_function_that_had_none)
{
    for (const auto& c : calls) {
        SCOPED_TRACE(c.text);
        (void)m_log.take();
        fail_next_allocations(1);
        EXPECT_TRUE(c.fails(*this));
        EXPECT_EQ(failures_left(), 0U) << "it has asked for memory";
        fail_next_allocations(0);
        EXPECT_THAT(m_log.messages("main"), testing::Contains(std::string(c.text) + ": out of memory!"));
    }
}

TEST_F(out_of_memory, costs_a_route_request_alone)
{
    introduce(sender_mac, sender_ip);
    (void)m_log.take();
    const bytes_t request = generic_req(6, 10, ramp(800)) + hex(sender_ip);
    // As receive() does, which allocates itself.
    bridge->pending_data.reset(static_cast<uint8_t*>(malloc(request.size())));
    bridge->pending_data_size = bridge->pending_buffsize = request.size();
    std::memcpy(bridge->pending_data, request.data(), request.size());
    fail_next_allocations(1, 1000); // its lines in the log are shorter than its text
    EXPECT_TRUE(process_data_from_win_client(server, bridge));
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_EQ(errors(), texts_t{"answer_route_request: out of memory!"});
    EXPECT_EQ(management_texts(), texts_t{});
    EXPECT_TRUE(receive(request));
    EXPECT_EQ(management_texts().size(), 1U);
}

TEST_F(out_of_memory, puts_the_check_of_bridges_off_to_the_next_tick)
{
    bridge->connection_delay = other_bridge->connection_delay = 0;
    (void)m_log.take();
    fail_next_allocations(1);
    EXPECT_EQ(check_client_connection_at(server, 1000), 0);
    EXPECT_THAT(errors(), testing::Contains("check_client_connection: out of memory!"));
    EXPECT_EQ(check_client_connection_at(server, 2000), 0);
    EXPECT_EQ(server->clients.size(), 0U);
}

} // namespace rtls
