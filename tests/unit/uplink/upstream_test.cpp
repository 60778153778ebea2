#include "base/hex.h"
#include "link/win_server_private.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "support/sock.h"
#include "uplink/payloads.h"
#include "uplink/upstream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace rtls {

using line_list = std::vector<std::string>;

namespace {

// Whether the two lines are an episode's end and its count: "Overflow <queue>: <lost> lost in <n> ms".
testing::AssertionResult is_end(const line_list& logged, const std::string& queue, unsigned int lost)
{
    const std::string count = "Overflow " + queue + ": " + std::to_string(lost) + " lost in ";
    if (logged.size() == 2 && logged[0] == "Exemption " + queue + "!" && logged[1].starts_with(count) &&
        logged[1].ends_with(" ms"))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << testing::PrintToString(logged);
}

// The parts of one message, as hex; nothing when none waits.
line_list receive_parts(zsock_t* sock)
{
    line_list parts;
    int more = 1;
    while (more) {
        zmq_msg_t part;
        zmq_msg_init(&part);
        if (zmq_msg_recv(&part, zsock_resolve(sock), ZMQ_DONTWAIT) < 0) {
            zmq_msg_close(&part);
            break;
        }
        parts.push_back(to_hex({static_cast<const uint8_t*>(zmq_msg_data(&part)), zmq_msg_size(&part)}));
        more = zmq_msg_more(&part);
        zmq_msg_close(&part);
    }
    return parts;
}

// A server whose two upstream sockets have a peer in this process.
class upstream : public testing::Test {
protected:
    upstream()
        : handler_endpoint(new_endpoint()), proxy_endpoint(new_endpoint()),
          handler(zsock_new_pull(("@" + handler_endpoint).c_str())),
          proxy(zsock_new_pull(("@" + proxy_endpoint).c_str()))
    {
        server.msg_handler_sock.reset(zsock_new_push((">" + handler_endpoint).c_str()));
        server.proxy_input_sock.reset(zsock_new_push((">" + proxy_endpoint).c_str()));
    }

    ~upstream() override
    {
        server.msg_handler_sock.reset();
        server.proxy_input_sock.reset();
    }

    upstream(const upstream&) = delete;
    upstream& operator=(const upstream&) = delete;

    std::string next_line() const
    {
        const zframe_ptr frame{has_line() ? zframe_recv(proxy.get()) : nullptr};
        if (!frame)
            return "(none)";
        return {reinterpret_cast<const char*>(zframe_data(frame.get())), zframe_size(frame.get())};
    }

    bool has_line() const { return (zsock_events(proxy.get()) & ZMQ_POLLIN) != 0; }

    const std::string handler_endpoint;
    const std::string proxy_endpoint;
    log_capture log;
    zsock_ptr handler;
    zsock_ptr proxy;
    WIN_SERVER_t server;
};

// "...{"ts": <10>,"ms": <3>,TEXT}" without the two numbers, which are the clock's.
std::string without_time(const std::string& line)
{
    constexpr size_t ts = sizeof "@win_management {\"ts\":" - 1;
    constexpr size_t ms = ts + 10 + sizeof ",\"ms\":" - 1;
    if (line.size() < ms + 3)
        return line;
    return line.substr(0, ts) + "#" + line.substr(ts + 10, ms - ts - 10) + "#" + line.substr(ms + 3);
}

} // namespace

// --- to the message handler

TEST_F(upstream, a_report_follows_its_time_of_generation)
{
    const struct {
        uint32_t seconds;
        uint16_t milliseconds;
        bytes_t data;
        line_list then;
    } cases[] = {
        {1'700'000'000, 250, hex("01 04 07"), {"6553F10000FA", "010407"}},
        {0, 0, hex("F5 F6 F7 00"), {"000000000000", "F5F6F700"}},
        {0xFFFFFFFF, 999, hex("00"), {"FFFFFFFF03E7", "00"}},
    };
    for (const auto& c : cases) {
        data_to_msg_handler(&server, c.data.data(), c.data.size(), c.seconds, c.milliseconds);
        EXPECT_EQ(receive_parts(handler.get()), c.then);
    }
    EXPECT_EQ(receive_parts(handler.get()), line_list{});
    EXPECT_EQ(log.messages("raw"),
              (line_list{"HANDLER_RAW_OUTPUT: 010407 [3]", "HANDLER_RAW_OUTPUT: F5F6F700 [4]",
                         "HANDLER_RAW_OUTPUT: 00 [1]"}));
    EXPECT_EQ(log.messages("main"), line_list{});
}

TEST_F(upstream, an_empty_report_is_a_report)
{
    const uint8_t nothing = 0;
    data_to_msg_handler(&server, &nothing, 0, 1, 2);
    EXPECT_EQ(receive_parts(handler.get()), (line_list{"000000010002", ""}));
    EXPECT_EQ(log.messages("raw"), (line_list{"HANDLER_RAW_OUTPUT:  [0]"}));
}

TEST_F(upstream, a_full_handler_queue_is_reported_once_and_once_its_end)
{
    const uint8_t data = 1;
    for (int episode = 0; episode < 2; episode++) {
        server.msg_handler_sock.reset(zsock_new(ZMQ_PUSH)); // nobody to take anything
        for (int i = 0; i < 10; i++)
            data_to_msg_handler(&server, &data, 1, 0, 0);
        EXPECT_EQ(log.messages("main"), line_list{"Overflow message handler queue!"});

        zsock_connect(server.msg_handler_sock, "%s", handler_endpoint.c_str());
        for (int i = 0; i < 3; i++)
            data_to_msg_handler(&server, &data, 1, 0, 0);
        EXPECT_TRUE(is_end(log.messages("main"), "message handler queue", 10));
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(receive_parts(handler.get()), (line_list{"000000000000", "01"}));
        EXPECT_EQ(receive_parts(handler.get()), line_list{}); // what overflowed is lost
    }
}

TEST_F(upstream, a_full_queue_takes_whole_reports_only)
{
    server.msg_handler_sock.reset(zsock_new(ZMQ_PUSH));
    zsock_set_sndhwm(server.msg_handler_sock, 2);
    const zsock_ptr small{zsock_new(ZMQ_PULL)};
    zsock_set_rcvhwm(small.get(), 2);
    const std::string endpoint = new_endpoint();
    ASSERT_EQ(zsock_bind(small.get(), "%s", endpoint.c_str()), 0);
    ASSERT_EQ(zsock_connect(server.msg_handler_sock, "%s", endpoint.c_str()), 0);

    for (uint8_t i = 0; i < 20; i++)
        data_to_msg_handler(&server, &i, 1, i, 0);
    EXPECT_EQ(log.messages("main"), line_list{"Overflow message handler queue!"});
    size_t received = 0;
    for (line_list parts; !(parts = receive_parts(small.get())).empty(); received++)
        EXPECT_EQ(parts.size(), 2U) << received;
    EXPECT_GE(received, 2U);
    EXPECT_LT(received, 20U);

    // The room is noticed at once.
    const uint8_t data = 0xEE;
    data_to_msg_handler(&server, &data, 1, 0, 0);
    EXPECT_TRUE(is_end(log.messages("main"), "message handler queue", 20 - static_cast<unsigned>(received)));
    EXPECT_EQ(receive_parts(small.get()), (line_list{"000000000000", "EE"}));
}

TEST_F(upstream, other_failures_are_logged_each_time)
{
    server.msg_handler_sock.reset(zsock_new(ZMQ_PULL)); // a socket that cannot send
    server.proxy_input_sock.reset(zsock_new(ZMQ_PULL));
    const uint8_t data = 1;
    for (int i = 0; i < 2; i++) {
        data_to_msg_handler(&server, &data, 1, 0, 0);
        win_management_to_server(&server, "text");
    }
    const std::string handler_line = "data_to_msg_handler: zframe_send: 95, Operation not supported";
    const std::string proxy_line =
        "win_management_to_server: zstr_send (proxy_input_sock): 95, Operation not supported";
    EXPECT_EQ(log.messages("main"), (line_list{handler_line, proxy_line, handler_line, proxy_line}));
}

TEST_F(upstream, a_report_beyond_all_memory_is_logged_and_dropped)
{
    if (!malloc_can_refuse)
        GTEST_SKIP() << "the sanitizer ends the program instead of refusing the memory";
    const uint8_t data = 1;
    data_to_msg_handler(&server, &data, SIZE_MAX / 8, 0, 0);
    EXPECT_EQ(log.messages("raw"), line_list{}); // there was no memory for the hex, either
    EXPECT_EQ(log.messages("main"), line_list{"data_to_msg_handler: zframe_new: 12, Cannot allocate memory"});
    EXPECT_EQ(receive_parts(handler.get()), line_list{});
}

// --- to the proxy's input

TEST_F(upstream, a_management_line_is_one_frame_with_the_time_of_sending)
{
    const tav_timestamp_t before = get_current_time();
    win_management_to_server(&server, "\"route_request\":{}");
    const tav_timestamp_t after = get_current_time();
    const std::string line = next_line();
    EXPECT_EQ(without_time(line), "@win_management {\"ts\":#,\"ms\":#,\"route_request\":{}}");
    EXPECT_FALSE(has_line());

    long seconds = 0;
    int milliseconds = 0;
    ASSERT_EQ(sscanf(line.c_str(), "@win_management {\"ts\":%10ld,\"ms\":%3d", &seconds, &milliseconds), 2);
    const int64_t sent = seconds * 1000 + milliseconds;
    EXPECT_GE(sent, before.seconds * 1000 + before.milliseconds);
    EXPECT_LE(sent, after.seconds * 1000 + after.milliseconds);

    // The debug line carries the same time, so that one can be found by the other.
    const line_list records = log.take();
    ASSERT_EQ(records.size(), 1U);
    char stamp[16];
    snprintf(stamp, sizeof stamp, ":%02ld.%03d ", seconds % 60, milliseconds);
    EXPECT_THAT(records[0], testing::HasSubstr(stamp + ("JSON_OUTPUT: " + line)));
}

TEST_F(upstream, a_management_line_carries_any_text)
{
    for (const std::string& text : {std::string{}, std::string{"100%s%n"}, std::string(300'000, 'x')}) {
        win_management_to_server(&server, text.c_str());
        EXPECT_EQ(without_time(next_line()), "@win_management {\"ts\":#,\"ms\":#," + text + "}");
    }
}

TEST_F(upstream, a_full_proxy_queue_neither_blocks_nor_repeats_itself)
{
    server.proxy_input_sock.reset(zsock_new_push(">tcp://127.0.0.1:1")); // nobody listens
    for (int i = 0; i < 1100; i++) {
        win_management_to_server(&server, "text");
        if (i % 100 == 0)
            (void)log.messages("raw"); // or the log's own queue overflows
    }
    EXPECT_EQ(log.messages("main"), line_list{"Overflow proxy input queue!"});

    server.proxy_input_sock.reset(zsock_new_push((">" + proxy_endpoint).c_str()));
    win_management_to_server(&server, "text");
    win_management_to_server(&server, "text");
    EXPECT_TRUE(is_end(log.messages("main"), "proxy input queue", 100));
}

TEST_F(upstream, the_two_queues_overflow_apart)
{
    server.msg_handler_sock.reset(zsock_new(ZMQ_PUSH));
    const uint8_t data = 1;
    data_to_msg_handler(&server, &data, 1, 0, 0);
    win_management_to_server(&server, "text");
    EXPECT_EQ(log.messages("main"), line_list{"Overflow message handler queue!"});
    EXPECT_TRUE(has_line());
    zsock_connect(server.msg_handler_sock, "%s", handler_endpoint.c_str());
    data_to_msg_handler(&server, &data, 1, 0, 0);
    EXPECT_TRUE(is_end(log.messages("main"), "message handler queue", 1));
}

TEST_F(upstream, the_stop_says_what_an_overflow_has_cost_that_has_not_ended)
{
    upstream_stopping(server);
    EXPECT_EQ(log.messages("main"), line_list{}); // there is none
    server.msg_handler_sock.reset(zsock_new(ZMQ_PUSH));
    const uint8_t data = 1;
    for (int i = 0; i < 7; i++)
        data_to_msg_handler(&server, &data, 1, 0, 0);
    EXPECT_EQ(log.messages("main"), line_list{"Overflow message handler queue!"});
    upstream_stopping(server);
    const line_list said = log.messages("main");
    ASSERT_EQ(said.size(), 1U);
    EXPECT_TRUE(said[0].starts_with("Overflow message handler queue: 7 lost in "));
    upstream_stopping(server);
    EXPECT_EQ(log.messages("main"), line_list{}); // it is said already

    zsock_connect(server.msg_handler_sock, "%s", handler_endpoint.c_str());
    data_to_msg_handler(&server, &data, 1, 0, 0);
    EXPECT_EQ(log.messages("main"), line_list{"Exemption message handler queue!"}); // nothing more was lost
}

// --- UL-TDOA

static bytes_t ul_tdoa_message(uint16_t total_len)
{
    return hex("0E 01 07") + bytes_t{static_cast<uint8_t>(total_len), static_cast<uint8_t>(total_len >> 8)} +
           hex("00 28  02 AB 34 CD 56 01  12 34  02 AB 34 CD 56 02  02 AB 34 CD 56 03  FF FF FF FE  80 09") +
           hex("03 04 0A BC 00 01 E2 40 0E 10  64  EE EE EE");
}

TEST_F(upstream, ul_tdoa_data_becomes_a_management_line)
{
    const std::string input = "UL_TDOA_INPUT: TagMac:02AB34CD5601 PeSeqNo:4660 RespAnchorMac:02AB34CD5602 "
                              "ReporterMac:02AB34CD5603 RangeMm:-2 TagLqi:128 RespAnchorLqi:9";
    const std::string board_input =
        "UL_TDOA_INPUT: BoardVersion:3 BoardRevision:4 Flags:ABC FirmwareId:1E240 BattVoltage:3600";
    const std::string text =
        "@win_management {\"ts\":#,\"ms\":#,\"ul_tdoa_data\":{\"pe_seq_no\":4660,\"range_mm\":-2,"
        "\"tag\":{\"mac\":\"02ab34cd5601\",\"lqi\":128},"
        "\"responder\":{\"mac\":\"02ab34cd5602\",\"lqi\":9},"
        "\"reporter\":{\"mac\":\"02ab34cd5603\"}";
    const std::string board = ",\"board_version\":3,\"board_revision\":4,\"flags\":\"ABC\","
                              "\"firmware_id\":\"1E240\",\"batt_voltage\":3600";
    const struct {
        uint16_t total_len;
        std::string then;
        line_list printed;
    } cases[] = {
        {28, text + "}}", {input}},
        {37, text + "}}", {input}},
        {38, text + board + "}}", {input, board_input}},
        {39,
         text + board + ",\"percent_of_charge\":100}}",
         {input, board_input, "UL_TDOA_INPUT: PercentOfCharge:100"}},
    };
    const uint8_t unused_mac[8] = {};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total_len);
        EXPECT_TRUE(processing_ul_tdoa(&server, ul_tdoa_message(c.total_len), unused_mac));
        EXPECT_EQ(without_time(next_line()), c.then);
        EXPECT_EQ(log.messages("parsing"), c.printed);
        EXPECT_EQ(receive_parts(handler.get()), line_list{});
    }
}

TEST_F(upstream, ul_tdoa_data_that_is_cut_short_is_refused)
{
    const uint8_t unused_mac[8] = {};
    const bytes_t whole = ul_tdoa_message(39);
    for (size_t size = 1; size < 44; size++) {
        const bytes_t cut = slice(whole, 0, size);
        EXPECT_FALSE(processing_ul_tdoa(&server, cut, unused_mac)) << size;
    }
    EXPECT_FALSE(has_line());
    EXPECT_EQ(log.messages("parsing"), line_list{});
}

} // namespace rtls
