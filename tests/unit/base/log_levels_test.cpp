// How urgent each record is: operators' alarms go by the level, not by the text. The system log's calls are
// taken by stand-ins of this program.
#include "base/common.h"
#include "base/config.h"
#include "base/logger.h"
#include "link/win_server_private.h"
#include "rtls-gateway.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/node_command_fixture.h"
#include "support/operator_peer.h"
#include "support/sock.h"
#include "support/temp_file.h"
#include "terminal/terminal_server.h"
#include "uplink/upstream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

namespace {

struct record {
    int level;
    std::string text;
};

struct system_log {
    std::mutex mutex;
    std::vector<record> records;
};

system_log& written()
{
    static system_log log;
    return log;
}

} // namespace

} // namespace rtls

extern "C" {

void vsyslog(int priority, const char* format, va_list arguments)
{
    char text[1024];
    (void)vsnprintf(text, sizeof text, format, arguments);
    const std::lock_guard guard{rtls::written().mutex};
    rtls::written().records.push_back({LOG_PRI(priority), text});
}

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

// What syslog becomes where the compiler fortifies calls of libc.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"

namespace rtls {

namespace {

class log_levels : public node_command_fixture {
protected:
    log_levels() { (void)take(); }
    ~log_levels() override { debug_mask = 0; }

    static std::vector<record> take()
    {
        EXPECT_TRUE(logger_flush(g_logger_ctx, 5000)); // the lines are written by a thread of the library's
        const std::lock_guard guard{written().mutex};
        return std::exchange(written().records, {});
    }

    // The level of the one record since the last call whose text holds this; -1 when there is none.
    static int level_of(const std::string& text_part)
    {
        int level = -1;
        for (const auto& record : take())
            if (record.text.find(text_part) != std::string::npos)
                level = level == -1 ? record.level : -2;
        return level;
    }
};

constexpr uint8_t report[] = {1, 2, 3};

} // namespace

// Each of these means that something was lost, at this site, right now.
TEST_F(log_levels, overflows_and_their_ends_are_errors)
{
    const std::string endpoint = new_endpoint();
    server->msg_handler_sock.reset(zsock_new(ZMQ_PUSH));
    server->proxy_input_sock.reset(zsock_new(ZMQ_PUSH));
    server->dbg_client_sock.reset(zsock_new(ZMQ_PUSH));
    const struct {
        zsock_t* sock;
        void (*send)(WIN_SERVER_t*);
        const char* queue;
    } cases[] = {
        {server->msg_handler_sock, [](WIN_SERVER_t* s) { data_to_msg_handler(s, report, 3, 0, 0); },
         "message handler queue!"},
        {server->proxy_input_sock, [](WIN_SERVER_t* s) { win_management_to_server(s, "\"a\":1"); },
         "proxy input queue!"},
        {server->dbg_client_sock,
         [](WIN_SERVER_t* s) {
             debug_mask = 1 << DBG_DEVELOP;
             dbg_print(s->dbg_client_sock, DBG_DEVELOP, "TEST", "line");
             debug_mask = 0;
         },
         "debugging queue!"},
    };
    for (const auto& c : cases) {
        const std::string name = new_endpoint();
        c.send(server); // nobody is connected
        EXPECT_EQ(level_of(std::string("Overflow ") + c.queue), LOG_ERR);
        const zsock_ptr reader{zsock_new_pull(("@" + name).c_str())};
        ASSERT_EQ(zsock_connect(c.sock, "%s", name.c_str()), 0);
        c.send(server);
        EXPECT_EQ(level_of(std::string("Exemption ") + c.queue), LOG_ERR);
    }
    for (auto* sock : {&server->msg_handler_sock, &server->proxy_input_sock, &server->dbg_client_sock})
        sock->reset();
}

TEST_F(log_levels, a_command_of_an_operator_that_is_not_sent_is_an_error)
{
    test_gateway gateway;
    const zsock_ptr win_server{zsock_new_router("@inproc://winserw_channel")}; // does not read
    gateway.run_terminal_server();
    gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    operator_peer peer{gateway.terminal_port()};
    int sent = 0;
    while (sent <= 2000 && peer.ask("reboot 1a2b\n", "\n") == "Command sent successfully!\n")
        ++sent;
    EXPECT_LE(sent, 2000);
    EXPECT_EQ(level_of("Overflow winserw queue!"), LOG_ERR);
}

TEST_F(log_levels, messages_that_a_bridge_loses_are_errors)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    ASSERT_TRUE(
        bridge->unsent_messages.append(bytes_t(unsent_messages_limit - bridge->unsent_messages.bytes())));
    EXPECT_FALSE(data_to_cache(server, bridge, report, sizeof report));
    bridge->unsent_messages.clear();
    EXPECT_EQ(level_of("messages are lost!"), LOG_ERR);
}

// The daemon does not start, and nobody but the log says why.
TEST_F(log_levels, whatever_keeps_the_daemon_from_starting_is_an_error)
{
    const temp_file nothing{"empty.conf", ""};
    EXPECT_EQ(rtls_gateway_new("/nonexistent/gateway.conf"), nullptr);
    EXPECT_EQ(level_of("Error opening configuration file!"), LOG_ERR);
    EXPECT_EQ(rtls_gateway_new(nothing.path()), nullptr);
    EXPECT_EQ(level_of("is not found in the configuration file!"), LOG_ERR);

    for (const char* value : {"6", "none"}) {
        const temp_file wrong{"gateway.conf", gateway_config{}.set("firmware_files", value).text()};
        EXPECT_EQ(rtls_gateway_new(wrong.path()), nullptr);
        EXPECT_EQ(level_of(value[0] == '6' ? "has an incorrect value!" : "No digits were found"), LOG_ERR);
    }
}

TEST_F(log_levels, a_bad_pid_file_is_an_error)
{
    const test_gateway given{gateway_config{}.set("pidfile", "/nonexistent/gateway.pid")};
    EXPECT_FALSE(rtls_gateway_run(given.handle()));
    EXPECT_EQ(level_of("unable to create pid file"), LOG_ERR);
}

TEST_F(log_levels, failed_calls_are_errors)
{
    errno = EIO;
    log_call_error("function", "call");
    EXPECT_EQ(level_of("function: call: 5, "), LOG_ERR);
    log_system_call_error("function", "call");
    EXPECT_EQ(level_of("function: call: 5, "), LOG_ERR);
}

// What is as it should be wakes nobody up.
TEST_F(log_levels, the_end_of_an_actor_is_information)
{
    test_gateway given;
    given.run_win_server();
    given.run_terminal_server();
    (void)take();
    given.stop();
    std::vector<record> ends = take();
    std::erase_if(ends, [](const record& r) { return r.text.find("oop Ending") == std::string::npos; });
    ASSERT_EQ(ends.size(), 2U);
    for (const auto& end : ends)
        EXPECT_EQ(end.level, LOG_INFO);
}

} // namespace rtls
