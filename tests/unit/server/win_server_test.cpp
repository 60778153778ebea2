#include "server/win_server.h"
#include "server/win_server_actor.h"

#include "base/czmq_ptr.h"
#include "base/signals.h"
#include "link/win_server_private.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/stop.h"
#include "support/tcp_peer.h"
#include "support/test_gateway.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const gateway_config complete_config = gateway_config{}
                                           .set("ports/win", 4000)
                                           .set("ports/discovery", 4001)
                                           .set("pub_sub_proxy/address", "10.0.0.5")
                                           .set("pub_sub_proxy/port", 5555)
                                           .set("pub_sub_proxy/input_port", 5556)
                                           .set("message_handler/address", "10.0.0.6")
                                           .set("message_handler/port", 5557);

gateway_config with(gateway_config config, const char* path, const char* value)
{
    return config.set(path, value);
}

gateway_config without(gateway_config config, const char* path)
{
    return config.remove(path);
}

// What the WIN server asks for, in its order.
const char* const required[] = {"ports/win",           "ports/discovery",          "pub_sub_proxy/address",
                                "pub_sub_proxy/port",  "pub_sub_proxy/input_port", "message_handler/address",
                                "message_handler/port"};

// Owns a server of any make.
struct server_owner {
    explicit server_owner(void* made) : handle(made) {}
    ~server_owner() { win_server_destroy(&handle); }
    server_owner(const server_owner&) = delete;
    server_owner& operator=(const server_owner&) = delete;
    WIN_SERVER_t& server() const { return *static_cast<WIN_SERVER_t*>(handle); }
    void* handle;
};

int any_gateway = 0; // construction only keeps the pointer

// A UDP port that belongs to this object alone.
class udp_port {
public:
    udp_port()
    {
        m_address.sin_family = AF_INET;
        socklen_t size = sizeof m_address;
        auto* generic = reinterpret_cast<sockaddr*>(&m_address);
        EXPECT_EQ(bind(m_socket, generic, size), 0);
        EXPECT_EQ(getsockname(m_socket, generic, &size), 0);
    }
    ~udp_port() { close(m_socket); }
    udp_port(const udp_port&) = delete;
    udp_port& operator=(const udp_port&) = delete;
    uint16_t number() const { return ntohs(m_address.sin_port); }

private:
    int m_socket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in m_address{};
};

// An ending actor raises the interrupt flag; the next test starts without.
class win_server_actor_test : public testing::Test {
protected:
    ~win_server_actor_test() override { clear_stop(); }

    log_capture log;
};

} // namespace

TEST(win_server_new, takes_the_configuration_over)
{
    const zconfig_ptr config = complete_config.tree();
    const server_owner owner{win_server_new(config.get(), &any_gateway)};
    ASSERT_NE(owner.handle, nullptr);
    const WIN_SERVER_t& server = owner.server();
    EXPECT_EQ(static_cast<void*>(server.rtls_gateway), &any_gateway);
    EXPECT_EQ(server.win_port, 4000);
    EXPECT_EQ(server.discovery_port, 4001);
    EXPECT_EQ(server.proxy_full_address, "tcp://10.0.0.5:5555");
    EXPECT_EQ(server.proxy_full_input_address, "tcp://10.0.0.5:5556");
    EXPECT_EQ(server.msg_handler_full_address, "tcp://10.0.0.6:5557");
    EXPECT_EQ(server.rpl_prefix, 1);
    EXPECT_EQ(server.discovery_sock_descriptor, -1);
    EXPECT_EQ(server.actor, nullptr);
    EXPECT_FALSE(server.rpl_timer_is_active);
    EXPECT_FALSE(server.proxy_is_silent);
    EXPECT_FALSE(win_server_is_ready(owner.handle));
    EXPECT_EQ(zhashx_size(win_server_get_clients(owner.handle)), 0U);
}

TEST(win_server_new, the_longest_ports_fit_the_endpoints)
{
    const zconfig_ptr config = with(complete_config, "pub_sub_proxy/port", "65535").tree();
    const server_owner owner{win_server_new(config.get(), &any_gateway)};
    ASSERT_NE(owner.handle, nullptr);
    EXPECT_EQ(owner.server().proxy_full_address, "tcp://10.0.0.5:65535");
}

TEST(win_server_new, every_key_is_required)
{
    log_capture log;
    for (const char* path : required) {
        const zconfig_ptr config = without(complete_config, path).tree();
        EXPECT_EQ(win_server_new(config.get(), &any_gateway), nullptr) << path;
        EXPECT_THAT(log.messages("main"), ElementsAre("Parameter \"" + std::string(path) +
                                                      "\" is not found in the configuration file!"));
    }
}

TEST(win_server_new, reports_the_first_missing_key_alone)
{
    log_capture log;
    gateway_config config = complete_config;
    for (const char* path : required)
        config.remove(path);
    for (const char* path : required) {
        EXPECT_EQ(win_server_new(config.tree().get(), &any_gateway), nullptr);
        EXPECT_THAT(log.messages("main"), ElementsAre("Parameter \"" + std::string(path) +
                                                      "\" is not found in the configuration file!"));
        config.set(path, complete_config.port(path));
    }
}

TEST(win_server_new, the_backlog_is_optional)
{
    const char* const no_number =
        "win_server_new: ports/win_backlog is no positive number, the library's default is used";
    const struct {
        gateway_config config;
        int backlog;
        std::vector<std::string> log;
    } cases[] = {
        {complete_config, 0, {}},
        {with(complete_config, "ports/win_backlog", "1024"), 1024, {}},
        {with(complete_config, "ports/win_backlog", "1"), 1, {}},
        {with(complete_config, "ports/win_backlog", "0"), 0, {no_number}},
        {with(complete_config, "ports/win_backlog", "-5"), 0, {no_number}},
        {with(complete_config, "ports/win_backlog", "many"), 0, {no_number}},
        {with(complete_config, "ports/win_backlog", ""), 0, {no_number}},
        {with(complete_config, "ports/win_backlog", "2147483648"), 0, {no_number}},
    };
    log_capture log;
    for (const auto& c : cases) {
        const zconfig_ptr config = c.config.tree();
        const server_owner owner{win_server_new(config.get(), &any_gateway)};
        ASSERT_NE(owner.handle, nullptr);
        EXPECT_EQ(owner.server().win_backlog, c.backlog);
        EXPECT_EQ(log.messages("main"), c.log);
    }
}

TEST(win_server_destroy, leaves_the_handle_null)
{
    log_capture log;
    const zconfig_ptr config = complete_config.tree();
    void* server = win_server_new(config.get(), &any_gateway);
    win_server_destroy(&server);
    EXPECT_EQ(server, nullptr);
    win_server_destroy(&server);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(win_server_actor_test, serves_until_it_is_destroyed)
{
    test_gateway gateway;
    log.take();
    gateway.run_win_server();
    tcp_peer peer{gateway.win_port()};
    EXPECT_EQ(peer.receive(5), "sync\n");
    peer.send(hex("F5 00 00 05 AA F7"));
    EXPECT_EQ(peer.receive(6), text_of(hex("F5 00 00 05 AA F7")));
    EXPECT_FALSE(is_stop_requested());
    gateway.stop();
    EXPECT_TRUE(is_stop_requested()) << "the end of the actor ends the gateway";
    EXPECT_THAT(log.messages("main"), ElementsAre("win_loop Ending"));
}

TEST_F(win_server_actor_test, opens_its_sockets_as_peers_need_them)
{
    constexpr int library_backlog = 100;
    const struct {
        gateway_config config;
        int backlog;
    } cases[] = {
        {{}, library_backlog},
        {gateway_config{}.set("ports/win_backlog", 1024), 1024},
    };
    for (const auto& c : cases) {
        test_gateway gateway{c.config};
        gateway.run_win_server();
        const WIN_SERVER_t& server = gateway.win_server();
        EXPECT_EQ(zsock_type(server.win_sock), ZMQ_STREAM);
        EXPECT_EQ(zsock_sndtimeo(server.win_sock), 100);
        EXPECT_EQ(zsock_backlog(server.win_sock), c.backlog);
        EXPECT_EQ(zsock_type(server.interthread_sever_sock), ZMQ_ROUTER);
        EXPECT_EQ(zsock_rcvtimeo(server.interthread_sever_sock), 100);
        EXPECT_STREQ(zsock_endpoint(server.interthread_sever_sock), "inproc://winserw_channel");
        EXPECT_EQ(zsock_type(server.dbg_client_sock), ZMQ_PUSH);
        EXPECT_EQ(zsock_type(server.proxy_sock), ZMQ_SUB);
        EXPECT_EQ(zsock_type(server.proxy_input_sock), ZMQ_PUSH);
        EXPECT_EQ(zsock_type(server.msg_handler_sock), ZMQ_PUSH);
    }
}

TEST_F(win_server_actor_test, is_run_once)
{
    const test_gateway gateway;
    log.take();
    ASSERT_TRUE(win_server_run(&gateway.win_server()));
    EXPECT_FALSE(win_server_run(&gateway.win_server()));
    EXPECT_THAT(log.messages("main"),
                ElementsAre(StartsWith("win_server_run: trying to run the running win server: ")));
    ASSERT_TRUE(wait_until([&] { return win_server_is_ready(&gateway.win_server()); }));
    tcp_peer peer{gateway.win_port()};
    EXPECT_EQ(peer.receive(5), "sync\n") << "the first one still runs";
}

TEST_F(win_server_actor_test, a_port_in_use_ends_the_gateway)
{
    zsock_t* owner = zsock_new(ZMQ_STREAM);
    const int port = zsock_bind(owner, "tcp://*:*");
    ASSERT_GT(port, 0);
    const test_gateway gateway{gateway_config{}.set("ports/win", static_cast<uint16_t>(port))};
    log.take();
    ASSERT_TRUE(win_server_run(&gateway.win_server())); // the actor finds out later
    EXPECT_TRUE(log.wait_for("win_server_actor: zsock_bind: 98, Address already in use"));
    EXPECT_TRUE(wait_until(is_stop_requested));
    EXPECT_FALSE(win_server_is_ready(&gateway.win_server()));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("win_server_actor: zsock_bind: 98, Address already in use"));
    zsock_destroy(&owner);
}

TEST_F(win_server_actor_test, whatever_cannot_be_opened_ends_the_gateway)
{
    udp_port taken; // without SO_REUSEADDR, so that nobody shares it
    const struct {
        const char* given;
        gateway_config config;
        const char* then;
    } cases[] = {
        {"a discovery port in use", gateway_config{}.set("ports/discovery", taken.number()),
         "udp_new_connection: bind: 98, Address already in use"},
        {"a proxy address that is none", gateway_config{}.set("pub_sub_proxy/address", "a b"),
         "win_server_actor: zsock_new_sub: 22, Invalid argument"},
        {"a message handler address that is none", gateway_config{}.set("message_handler/address", "a b"),
         "win_server_actor: zsock_new_push: 22, Invalid argument"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const test_gateway gateway{c.config};
        log.take();
        zsock_t* other_end = nullptr;
        zsock_t* pipe = zsys_create_pipe(&other_end);
        // On a thread whose end can be waited for: only then may its fields be read.
        std::thread{[&] { win_server_actor(pipe, &gateway.win_server()); }}.join();
        zsock_destroy(&pipe);
        zsock_destroy(&other_end);
        EXPECT_TRUE(is_stop_requested());
        const WIN_SERVER_t& server = gateway.win_server();
        EXPECT_FALSE(win_server_is_ready(&gateway.win_server()));
        EXPECT_EQ(server.discovery_sock_descriptor, -1);
        EXPECT_EQ(server.win_sock, nullptr);
        EXPECT_EQ(server.dbg_client_sock, nullptr);
        EXPECT_EQ(server.interthread_sever_sock, nullptr);
        EXPECT_EQ(server.proxy_sock, nullptr);
        EXPECT_THAT(log.messages("main"), ElementsAre(c.then));
    }
}

TEST_F(win_server_actor_test, without_arguments_signals_and_ends)
{
    zsock_t* other_end = nullptr;
    zsock_t* pipe = zsys_create_pipe(&other_end);
    // A thread of its own: an actor blocks the signals of the thread that it runs in.
    std::thread{[&] { win_server_actor(pipe, nullptr); }}.join();
    EXPECT_TRUE(is_stop_requested());
    zsock_set_rcvtimeo(other_end, 1000);
    EXPECT_EQ(zsock_wait(other_end), 0) << "or else nobody could ever destroy the actor";
    std::thread{[] { win_server_actor(nullptr, nullptr); }}.join();
    EXPECT_THAT(log.messages("main"),
                ElementsAre("win_server_actor: null pointer!", "win_server_actor: null pointer!"));
    zsock_destroy(&pipe);
    zsock_destroy(&other_end);
}

TEST_F(win_server_actor_test, tear_down_takes_what_is_there)
{
    const zconfig_ptr config = complete_config.tree();
    const server_owner owner{win_server_new(config.get(), &any_gateway)};
    owner.server().unsent_messages.reset(zlist_new());
    zlist_append(owner.server().unsent_messages, zframe_new("1", 1));
    zlist_append(owner.server().unsent_messages, zframe_new("2", 1));
    destroy_actor_context(&owner.server());
    EXPECT_EQ(owner.server().unsent_messages, nullptr);
    EXPECT_TRUE(is_stop_requested());
}

} // namespace rtls
