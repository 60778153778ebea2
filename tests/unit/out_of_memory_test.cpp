// What is said where memory runs out: the one line in the log that explains why something is missing. The
// daemon goes on, and does the same thing when it has memory again.
#include "downlink/image_orders.h"
#include "downlink/win_server_pub_sub_proxy.h"
#include "firmware/download_pool.h"
#include "firmware/firmware.h"
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "link/sending.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "server/supervision.h"
#include "server/win_server.h"
#include "support/bridge_message_fixture.h"
#include "support/failing_new.h"
#include "support/temp_file.h"
#include "support/wait.h"
#include "terminal/terminal_server.h"
#include "uplink/messages.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <new>
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

TEST_F(out_of_memory, is_counted_where_something_is_lost)
{
    const auto& lost = server->counts.bridge_messages_lost[bridge_message_loss::out_of_memory];
    const auto& failed = image_download_counters().transfers[static_cast<size_t>(transfer_outcome::failed)];
    const auto not_taken = [&] { return server->rtls_gateway->downloads->current_load().not_taken; };
    const auto without_memory = [](const auto& call) {
        fail_next_allocations(1);
        call();
        EXPECT_EQ(failures_left(), 0U);
        fail_next_allocations(0);
    };
    without_memory([&] { data_to_win_client(server, nullptr, large.data(), large.size()); });
    EXPECT_EQ(lost.value(), 1U);
    without_memory([&] { data_to_win_client(server, bridge->id, large.data(), large.size()); });
    EXPECT_EQ(lost.value(), 2U);

    without_memory([&] { fetch_for_store(*server, "file:///nowhere", 1, 2); });
    EXPECT_EQ(not_taken(), 1U);
    without_memory([&] { fetch_announced(*server, "file:///nowhere", 1, 2); });
    EXPECT_EQ(not_taken(), 2U);

    const uint64_t before = failed.value();
    without_memory(
        [&] { EXPECT_EQ(server->ota()->download_firmware("file:///nowhere", nullptr, nullptr), -1); });
    without_memory([&] { EXPECT_EQ(firmware_get_from_url("file:///nowhere"), nullptr); });
    EXPECT_EQ(failed.value(), before + 2);
}

TEST_F(out_of_memory, in_the_middle_of_a_download_gives_the_order_up)
{
    download_pool& pool = *server->rtls_gateway->downloads;
    ASSERT_TRUE(pool.order([] { throw std::bad_alloc{}; }));
    EXPECT_TRUE(wait_until([&] { return pool.current_load().not_taken == 1; }));
    EXPECT_TRUE(wait_until([&] { return pool.current_load().running == 0; }));
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
    const auto& requests = server->counts.messages[static_cast<size_t>(message_type::generic_server_req)];
    EXPECT_EQ(requests[message_outcome::out_of_memory].value(), 1U);
    EXPECT_EQ(requests.sum(), 1U);
    EXPECT_TRUE(receive(request));
    EXPECT_EQ(management_texts().size(), 1U);
}

TEST_F(out_of_memory, refuses_a_node_as_a_full_registry_does)
{
    const bytes_t message = heartbeat();
    bridge->pending_data.reset(static_cast<uint8_t*>(malloc(message.size())));
    bridge->pending_data_size = bridge->pending_buffsize = message.size();
    memcpy(bridge->pending_data, message.data(), message.size());
    fail_next_allocations(1, sizeof(NODE_t)); // its lines in the log are shorter
    (void)process_data_from_win_client(server, bridge);
    EXPECT_EQ(failures_left(), 0U);
    const auto& heartbeats = server->counts.messages[static_cast<size_t>(message_type::heartbeat)];
    EXPECT_EQ(heartbeats[message_outcome::registry_full].value(), 1U);
    EXPECT_EQ(heartbeats.sum(), 1U);
    EXPECT_EQ(node_count(), 0U);
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
