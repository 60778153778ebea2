#include "terminal/terminal_server.h"

#include "base/common.h"
#include "base/endpoints.h"
#include "base/signals.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "server/win_server.h"
#include "support/hex_bytes.h"
#include "support/stop.h"
#include "support/terminal_server_fixture.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rtls {

using testing::HasSubstr;

// --- The handle, without an actor

class terminal_server_handle_test : public testing::Test {
protected:
    terminal_server_handle_test() { zconfig_put(m_config.get(), "ports/terminal", "4001"); }
    ~terminal_server_handle_test() override { clear_stop(); }
    texts_t errors() { return m_log.messages("main"); }

    log_capture m_log;
    zconfig_ptr m_config{zconfig_new("root", nullptr)};
    int m_gateway = 0; // stands for the gateway object, which is only handed on
};

TEST_F(terminal_server_handle_test, a_null_handle_is_left_alone)
{
    void* server = nullptr;
    terminal_server_destroy(&server);
    EXPECT_EQ(errors(), texts_t{});
}

TEST_F(terminal_server_handle_test, without_a_port_there_is_no_server)
{
    const zconfig_ptr empty{zconfig_new("root", nullptr)};
    EXPECT_EQ(terminal_server_new(empty.get(), &m_gateway), nullptr);
    EXPECT_EQ(errors(), texts_t{"Parameter \"ports/terminal\" is not found in the configuration file!"});
}

TEST_F(terminal_server_handle_test, a_rule_of_its_door_that_cannot_be_read_leaves_no_server)
{
    const std::string refusal = R"(The parameter "ports/terminal_connections" is no positive number!)";
    const struct {
        const char* text;
        texts_t log;
    } cases[] = {{"1", {}},           {"0x10", {}},    {"0", {refusal}},       {"-1", {refusal}},
                 {"many", {refusal}}, {"", {refusal}}, {"10 a day", {refusal}}};
    for (const auto& c : cases) {
        zconfig_put(m_config.get(), "ports/terminal_connections", c.text);
        void* server = terminal_server_new(m_config.get(), &m_gateway);
        EXPECT_EQ(server != nullptr, c.log.empty()) << c.text;
        EXPECT_EQ(errors(), c.log) << c.text;
        terminal_server_destroy(&server);
        (void)m_log.take();
    }
}

TEST_F(terminal_server_handle_test, a_server_that_does_not_run)
{
    void* server = terminal_server_new(m_config.get(), &m_gateway);
    ASSERT_NE(server, nullptr);
    EXPECT_FALSE(terminal_server_is_ready(server));
    EXPECT_EQ(zhashx_size(terminal_server_get_clients(server)), 0u);
    uint8_t data[1] = {};
    EXPECT_FALSE(terminal_server_generic_req_to_win_serwer(server, data, sizeof data));
    EXPECT_EQ(errors(), texts_t{"terminal_server_generic_req_to_win_serwer: null pointer!"});
    EXPECT_FALSE(is_stop_requested());
    terminal_server_destroy(&server);
    EXPECT_EQ(server, nullptr);
    EXPECT_FALSE(is_stop_requested());
}

// --- The actor, with operators

using terminal_server_test = terminal_server_fixture;

TEST_F(terminal_server_test, greets_nobody_and_answers_each)
{
    operator_peer one{port()};
    operator_peer two{port()};
    EXPECT_EQ(one.ask("pn\r\n", pn_end), empty_pn);
    EXPECT_EQ(two.ask("sub-\n", "\n"), "unsubscribed * ok.\n");
    EXPECT_EQ(one.ask("sub-\n", "\n"), "unsubscribed * ok.\n");
}

TEST_F(terminal_server_test, running_it_twice_is_refused)
{
    errno = 0;
    EXPECT_FALSE(terminal_server_run(server()));
    EXPECT_EQ(m_log.messages("main"),
              texts_t{"terminal_server_run: trying to run the running terminal server: 0, Success"});
    operator_peer peer{port()};
    expect_served(peer);
}

TEST_F(terminal_server_test, a_connection_is_announced_and_its_end_too)
{
    std::string id;
    {
        operator_peer peer{port()};
        const std::string announced = "] IP 127.0.0.1:" + std::to_string(peer.port());
        ASSERT_TRUE(m_log.wait_for(announced));
        const texts_t lines = m_log.messages("terminal");
        ASSERT_EQ(lines.size(), 2u);
        id = lines[0].substr(lines[0].size() - 10);
        EXPECT_EQ(lines[0], "CONS: rcvd ID [5] " + id);
        EXPECT_EQ(lines[1], "CONS: new terminal client [" + id + announced);
        EXPECT_EQ(id.substr(0, 2), "00");
        EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    }
    ASSERT_TRUE(m_log.wait_for("DELETING"));
    EXPECT_EQ(m_log.messages("terminal"),
              (texts_t{"CONS: rcvd ID [5] " + id, "CONS: DELETING " + id + "\n"}));
    operator_peer other{port()};
    EXPECT_EQ(terminals_seen_by(other).size(), 1u);
}

TEST_F(terminal_server_test, operators_see_each_other)
{
    operator_peer one{port()};
    operator_peer two{port()};
    two.ask("sub\n", "\n");
    two.ask("grep abc\n", "\n");
    const std::string one_line = "ip:127.0.0.1:" + std::to_string(one.port()) + " sub:0 grep:--";
    const std::string two_line = "ip:127.0.0.1:" + std::to_string(two.port()) + " sub:1 grep:abc";
    EXPECT_THAT(terminals_seen_by(one), testing::UnorderedElementsAre("+" + one_line, " " + two_line));
    EXPECT_THAT(terminals_seen_by(two), testing::UnorderedElementsAre(" " + one_line, "+" + two_line));
}

TEST_F(terminal_server_test, one_chunk_is_one_command)
{
    operator_peer peer{port()};
    EXPECT_EQ(peer.ask("pn\r\ninfo\r\n", pn_end), empty_pn);
    EXPECT_EQ(peer.ask("sub-\n", "\n"), "unsubscribed * ok.\n") << "the second word was run";
}

TEST_F(terminal_server_test, a_chunk_that_starts_with_nul_reads_as_a_disconnect)
{
    operator_peer peer{port()};
    expect_served(peer);
    (void)m_log.take();
    peer.write(std::string_view{"\0pn\n", 4});
    ASSERT_TRUE(m_log.wait_for("DELETING"));
    peer.write("pn\n"); // taken for a new connection, and ignored
    ASSERT_TRUE(m_log.wait_for("new terminal client"));
    EXPECT_EQ(peer.ask("pn\n", pn_end), empty_pn);
    EXPECT_EQ(peer.ask("sub-\n", "\n"), "unsubscribed * ok.\n");
}

// The disconnect that follows must not leave a record of somebody who is not there.
TEST_F(terminal_server_test, a_nul_before_the_disconnect_leaves_nothing)
{
    operator_peer other{port()};
    for (int round = 0; round < 3; ++round) {
        operator_peer peer{port()};
        expect_served(peer);
        (void)m_log.take();
        peer.write(std::string_view{"\0", 1});
        ASSERT_TRUE(m_log.wait_for("DELETING"));
        (void)m_log.take();
        peer.close();
        ASSERT_TRUE(m_log.wait_for("rcvd ID"));
        EXPECT_EQ(terminals_seen_by(other).size(), 1u);
    }
}

TEST_F(terminal_server_test, quit_closes_the_connection)
{
    operator_peer other{port()};
    for (const char* command : {"q\n", "quit\r\n", "!QUIT"}) {
        operator_peer peer{port()};
        expect_served(peer);
        EXPECT_EQ(terminals_seen_by(other).size(), 2u);
        peer.write(command);
        EXPECT_TRUE(peer.is_closed());
        EXPECT_EQ(peer.read_until("bye bye.\n"), "bye bye.\n");
        EXPECT_EQ(terminals_seen_by(other).size(), 1u);
    }
    const auto& counts = terminal_server_figures(*static_cast<TERMINAL_SERVER_t*>(server())).counts;
    EXPECT_EQ(counts.operators_accepted.value(), 4U);
    EXPECT_EQ(counts.operators_gone.value(), 3U);
}

TEST_F(terminal_server_test, quit_that_is_followed_by_more_leaves_nothing)
{
    operator_peer other{port()};
    for (int round = 0; round < 50; ++round) {
        operator_peer peer{port()};
        expect_served(peer);
        peer.write("quit\n");
        if (round % 2 == 0)
            peer.close();
        else
            peer.is_closed();
    }
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(other).size() == 1; }));
}

// --- The limit of sessions

TEST(terminal_sessions_test, beyond_the_limit_are_refused_whatever_they_send)
{
    log_capture log;
    test_gateway gateway{gateway_config{}.set("ports/terminal_connections", 2)};
    gateway.run_terminal_server();
    operator_peer one{gateway.terminal_port()};
    auto two = std::make_unique<operator_peer>(gateway.terminal_port());
    for (operator_peer* peer : {&one, two.get()})
        EXPECT_THAT(peer->ask("info\n", info_end), testing::StartsWith(info_start));
    (void)log.take();
    for (int round = 0; round < 20; ++round) {
        operator_peer refused{gateway.terminal_port()};
        if (round % 3 != 0)
            refused.write("info\n");
        if (round % 3 != 1) {
            EXPECT_TRUE(refused.is_closed());
            EXPECT_EQ(refused.read_until("\n"), "");
        }
    }
    EXPECT_THAT(one.ask("info\n", info_end), testing::StartsWith(info_start));
    EXPECT_EQ(log.messages("main"),
              texts_t{"Terminal port: 127.0.0.1 is refused, all connections are taken"});

    // A connection without a record is a session, too.
    two->write(std::string_view{"\0", 1});
    ASSERT_TRUE(log.wait_for("DELETING"));
    EXPECT_TRUE(operator_peer{gateway.terminal_port()}.is_closed());
    two.reset();
    EXPECT_TRUE(wait_until([&] {
        operator_peer next{gateway.terminal_port()};
        next.write("info\n");
        return next.read_until(info_end) != "";
    }));
}

// --- Requests towards the WIN server

static bytes_t last_frame(zmsg_t* message)
{
    zframe_t* frame = zmsg_last(message);
    const uint8_t* data = zframe_data(frame);
    return {data, data + zframe_size(frame)};
}

TEST_F(terminal_server_test, reboot_asks_the_win_server)
{
    const zsock_ptr win_server{zsock_new_router("@inproc://winserw_channel")};
    zsock_set_rcvtimeo(win_server.get(), 5000);
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    operator_peer peer{port()};
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(peer.ask("reboot 1a2b\n", "\n"), "Command sent successfully!\n");
        const zmsg_ptr message{zmsg_recv(win_server.get())};
        ASSERT_TRUE(message);
        ASSERT_EQ(zmsg_size(message.get()), 3u) << "identity, command, data";
        EXPECT_EQ(last_frame(message.get()), hex("0E 08 00 00 06 00 01 00 02 00 00 00 01 02 03 04 05 1A 2B"));
        const zframe_ptr id{zmsg_pop(message.get())};
        const zframe_ptr command{zmsg_pop(message.get())};
        const int32_t generic_req = WINSERW_SOCK_CMD_GENERIC_REQ;
        ASSERT_EQ(zframe_size(command.get()), sizeof generic_req);
        EXPECT_EQ(std::memcmp(zframe_data(command.get()), &generic_req, sizeof generic_req), 0);
    }
}

TEST_F(terminal_server_test, every_request_beyond_the_queue_is_refused_and_logged)
{
    const zsock_ptr win_server{zsock_new_router("@inproc://winserw_channel")}; // does not read
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    operator_peer peer{port()};
    int sent = 0;
    while (sent <= 2000 && peer.ask("reboot 1a2b\n", "\n") == "Command sent successfully!\n")
        ++sent;
    EXPECT_GE(sent, 1000);
    EXPECT_LE(sent, 2000);
    EXPECT_EQ(peer.ask("reboot 1a2b\n", "\n"), "Failed to send command!\n");
    EXPECT_EQ(m_log.messages("main"), texts_t(2, "Overflow winserw queue!"));
    const terminal_counters& counts =
        terminal_server_figures(*static_cast<TERMINAL_SERVER_t*>(server())).counts;
    EXPECT_EQ(counts.requests_lost.value(), 2U);
    EXPECT_EQ(counts.chunks.value(), static_cast<uint64_t>(sent) + 3); // his coming, too
    EXPECT_EQ(counts.bytes_in.value(),
              (static_cast<uint64_t>(sent) + 2) * std::string_view{"reboot 1a2b\n"}.size());
    const zmsg_ptr first{zmsg_recv(win_server.get())};
    EXPECT_EQ(zmsg_size(first.get()), 3u);
    expect_served(peer);
}

// --- Hostile and clumsy peers

TEST_F(terminal_server_test, what_no_operator_would_write)
{
    std::string binary;
    for (int i = 0; i < 70'000; ++i)
        binary += static_cast<char>(i * 167 + 1);
    const struct {
        const char* given;
        std::string bytes;
    } cases[] = {
        {"a line without an end", std::string(100'000, 'a')},
        {"binary", binary},
        {"thousands of commands",
         [] {
             std::string many;
             for (int i = 0; i < 5000; ++i)
                 many += "pn\n";
             return many;
         }()},
        {"line ends only", std::string(50'000, '\n')},
        {"words only",
         [] {
             std::string many;
             for (int i = 0; i < 20'000; ++i)
                 many += "a ";
             return many;
         }()},
        {"conversions", "%s%s%s%n%n%n %99999999d\n"},
        {"escape sequences", "\033]0;x\007\033[2J\n"},
        {"NULs", std::string(20'000, '\0')},
    };
    operator_peer steady{port()};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        operator_peer peer{port()};
        peer.write(c.bytes);
        EXPECT_EQ(steady.ask("pn\n", pn_end), empty_pn);
        peer.close();
        EXPECT_EQ(steady.ask("sub-\n", "\n"), "unsubscribed * ok.\n");
    }
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(steady).size() == 1; }));
}

TEST_F(terminal_server_test, hundreds_of_idle_connections)
{
    std::vector<std::unique_ptr<operator_peer>> idle;
    for (int i = 0; i < 300; ++i)
        idle.push_back(std::make_unique<operator_peer>(port()));
    operator_peer peer{port()};
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(peer).size() == 301; }));
    idle.clear();
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(peer).size() == 1; }));
}

TEST_F(terminal_server_test, connections_that_are_reset_at_once)
{
    operator_peer peer{port()};
    for (int i = 0; i < 30; ++i) {
        operator_peer brief{port()};
        if (i % 3 != 0)
            brief.write(i % 3 == 1 ? "pn\n" : "sub\n"); // the answer may wait in vain, 100 ms each
    }
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(peer).size() == 1; }));
    expect_served(peer);
}

// --- Start and stop

TEST_F(terminal_server_test, stops_and_takes_the_daemon_along)
{
    operator_peer peer{port()};
    expect_served(peer);
    clear_stop();
    (void)m_log.take();
    m_gateway.stop();
    EXPECT_TRUE(is_stop_requested());
    EXPECT_THAT(m_log.messages("main"), testing::Contains("terminal actor_loop Ending"));
    EXPECT_TRUE(peer.is_closed());
}

TEST(terminal_server_start_test, a_port_in_use_stops_the_daemon)
{
    log_capture log;
    test_gateway gateway;
    const zsock_ptr occupant{zsock_new(ZMQ_STREAM)};
    ASSERT_EQ(zsock_bind(occupant.get(), "tcp://*:%d", gateway.terminal_port()), gateway.terminal_port());
    void* server = rtls_gateway_get_terminal_server(gateway.handle());
    (void)log.take();
    EXPECT_TRUE(terminal_server_run(server)) << "the actor itself starts";
    EXPECT_TRUE(wait_until(is_stop_requested));
    EXPECT_FALSE(terminal_server_is_ready(server));
    ASSERT_TRUE(log.wait_for("zsock_bind"));
    EXPECT_EQ(log.messages("main"), texts_t{"terminal_server_actor: zsock_bind: 98, Address already in use"});
}

TEST(terminal_server_start_test, a_debug_stream_that_somebody_else_collects_stops_the_daemon)
{
    log_capture log;
    test_gateway gateway;
    const zsock_ptr occupant{zsock_new_pull("@inproc://dbg_dump")};
    void* server = rtls_gateway_get_terminal_server(gateway.handle());
    (void)log.take();
    EXPECT_TRUE(terminal_server_run(server));
    EXPECT_TRUE(wait_until(is_stop_requested));
    ASSERT_TRUE(log.wait_for("zsock_bind"));
    EXPECT_EQ(log.messages("main"), texts_t{"terminal_server_actor: zsock_bind: 98, Address already in use"});
    EXPECT_FALSE(terminal_server_is_ready(server));
}

// Whether all threads but the main one have come as far as to block this signal.
static bool other_threads_block(int signal)
{
    for (const auto& thread : std::filesystem::directory_iterator{"/proc/self/task"}) {
        std::ifstream status{thread.path() / "status"};
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("SigBlk:\t") && thread.path().filename() != std::to_string(getpid()) &&
                (std::stoull(line.substr(8), nullptr, 16) >> (signal - 1) & 1) == 0)
                return false;
    }
    return true;
}

// A signal that reaches the actor's thread would end its loop.
TEST_F(terminal_server_test, takes_no_signals)
{
    ASSERT_TRUE(wait_until(
        [] { return other_threads_block(SIGUSR1); })); // one of the library's that starts may not yet
    static std::atomic<int> taken{0};
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {
        std::array<char, 16> name{}; // of this thread: one of the library's that starts now is none of ours
        (void)prctl(PR_GET_NAME, name.data());
        if (std::string_view{name.data()} == "rtls-terminal")
            ++taken;
    };
    sigaction(SIGUSR1, &action, &before);
    sigset_t blocked;
    sigset_t old;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &old); // so it is for another thread, if any takes it
    operator_peer peer{port()};
    for (int i = 0; i < 10; ++i) {
        kill(getpid(), SIGUSR1);
        expect_served(peer);
    }
    EXPECT_EQ(taken, 0);
    timespec none{};
    (void)sigtimedwait(&blocked, nullptr, &none); // it is this thread's
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    sigaction(SIGUSR1, &before, nullptr);
}

// --- Beside the WIN server

// Both actors run; bridges come and go on one thread while an operator lists them without pause.
TEST(terminal_and_win_server_test, lists_while_bridges_come_and_go)
{
    log_capture log;
    test_gateway gateway;
    gateway.run_win_server();
    gateway.run_terminal_server();
    for (uint8_t i = 0; i < 50; ++i)
        gateway.add_node(ramp(8, i), "gone");

    std::atomic<bool> done{false};
    std::thread bridges{[&] {
        for (int round = 0; round < 60; ++round) {
            std::array<std::unique_ptr<operator_peer>, 10> peers;
            for (auto& peer : peers)
                peer = std::make_unique<operator_peer>(gateway.win_port());
            for (auto& peer : peers)
                peer->read_until("sync\n");
        }
        done = true;
    }};
    operator_peer peer{gateway.terminal_port()};
    size_t listings = 0;
    for (; !done || listings < 20; ++listings) {
        EXPECT_THAT(peer.ask("pcl\n", pcl_end), HasSubstr("####### WIN clients:\n"));
        EXPECT_THAT(peer.ask("pn\n", "\n##\n"), HasSubstr("####### Floating nodes\n"));
        EXPECT_THAT(peer.ask("pnf\n", "\n##\n"), HasSubstr("####### Expired nodes\n"));
    }
    bridges.join();
    EXPECT_TRUE(
        wait_until([&] { return peer.ask("pcl\n", pcl_end).ends_with("####### WIN clients:\n##\n"); }));
}

} // namespace rtls
