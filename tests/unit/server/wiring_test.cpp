// How the two actors are wired: what they open and in which order, their periods, their signals, their end.
// Peers, operators and supervisors rely on it, and no message shows it. The libraries' calls are watched by
// stand-ins with the same names, which this program's link prefers; each does what it stands for.
#include "base/signals.h"
#include "link/rpl_version.h"
#include "link/sending.h"
#include "link/win_server_private.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "server/supervision.h"
#include "server/win_server.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/sock.h"
#include "support/stop.h"
#include "support/temp_file.h"
#include "support/test_gateway.h"
#include "support/texts.h"
#include "support/wait.h"
#include "support/win_link.h"
#include "terminal/terminal_server.h"
#include "terminal/terminal_server_private.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What the stand-ins have seen, and what they are to do.
struct watched_calls {
    std::mutex mutex; // guards what follows
    texts_t opened;   // "PULL bind inproc://dbg_dump", in order
    std::vector<std::pair<size_t, zloop_timer_fn*>> timers;
    std::map<std::string, sigset_t> blocked; // signals of the thread that opens this endpoint

    std::atomic<int> failing_connects = 0;
    std::atomic<unsigned> sleeps = 0;
    std::atomic<const char*> held_endpoint = nullptr;   // whose bind waits until this is null
    std::atomic<std::promise<void>*> sending = nullptr; // told once, then null
    std::atomic<void (*)()> before_deletion = nullptr;  // of a client from the table
};

watched_calls& calls()
{
    static watched_calls all;
    return all;
}

template <typename Function>
Function* real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

const char* type_of(void* socket)
{
    int type = 0;
    size_t size = sizeof type;
    zmq_getsockopt(socket, ZMQ_TYPE, &type, &size);
    return type == ZMQ_PULL     ? "PULL"
           : type == ZMQ_PUSH   ? "PUSH"
           : type == ZMQ_STREAM ? "STREAM"
           : type == ZMQ_ROUTER ? "ROUTER"
           : type == ZMQ_SUB    ? "SUB"
                                : "other";
}

void note_opening(void* socket, const char* call, const std::string& endpoint)
{
    const std::lock_guard guard{calls().mutex};
    if (!endpoint.starts_with("inproc://pipe") && // an actor's own
        !endpoint.starts_with("inproc://link"))   // what the library tells of the upstream links
        calls().opened.push_back(type_of(socket) + (call + endpoint));
    pthread_sigmask(SIG_SETMASK, nullptr, &calls().blocked[endpoint]);
}

} // namespace

} // namespace rtls

using rtls::calls;
using rtls::real;

extern "C" {

int zmq_bind(void* socket, const char* endpoint)
{
    rtls::note_opening(socket, " bind ", endpoint);
    for (const char* held = calls().held_endpoint; held && std::string{held} == endpoint;
         held = calls().held_endpoint)
        std::this_thread::yield();
    return real<decltype(zmq_bind)>("zmq_bind")(socket, endpoint);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept
{
    int type = 0;
    socklen_t type_size = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &type_size);
    if (address->sa_family == AF_INET && type == SOCK_DGRAM) {
        const std::lock_guard guard{calls().mutex};
        const auto* bound = reinterpret_cast<const sockaddr_in*>(address);
        calls().opened.push_back("UDP bind " + std::to_string(ntohs(bound->sin_port)));
    }
    return real<int(int, const sockaddr*, socklen_t)>("bind")(fd, address, size);
}

int zmq_connect(void* socket, const char* endpoint)
{
    rtls::note_opening(socket, " connect ", endpoint);
    if (calls().failing_connects > 0) {
        --calls().failing_connects;
        errno = EMTHREAD;
        return -1;
    }
    return real<decltype(zmq_connect)>("zmq_connect")(socket, endpoint);
}

int zmq_sendmsg(void* socket, zmq_msg_t* message, int flags)
{
    if (auto* sending = calls().sending.exchange(nullptr))
        sending->set_value();
    return real<decltype(zmq_sendmsg)>("zmq_sendmsg")(socket, message, flags);
}

int zloop_timer(zloop_t* loop, size_t delay, size_t times, zloop_timer_fn handler, void* argument)
{
    {
        const std::lock_guard guard{calls().mutex};
        calls().timers.emplace_back(delay, handler);
    }
    return real<decltype(zloop_timer)>("zloop_timer")(loop, delay, times, handler, argument);
}

void zclock_sleep(int milliseconds)
{
    ++calls().sleeps;
    real<decltype(zclock_sleep)>("zclock_sleep")(milliseconds);
}

void zhashx_delete(zhashx_t* table, const void* key)
{
    if (void (*probe)() = calls().before_deletion)
        probe();
    real<decltype(zhashx_delete)>("zhashx_delete")(table, key);
}

} // extern "C"

namespace rtls {

namespace {

class wiring : public testing::Test {
protected:
    wiring() { forget_calls(); }
    ~wiring() override { clear_stop(); }

    static void forget_calls()
    {
        const std::lock_guard guard{calls().mutex};
        calls().opened.clear();
        calls().timers.clear();
        calls().blocked.clear();
    }

    static std::string endpoint(const gateway_config& config, const char* port)
    {
        return "tcp://127.0.0.1:" + std::to_string(config.port(port));
    }

    log_capture log;
};

} // namespace

// Peers meet these sockets from the first to the last: a bridge that comes early finds its port before the
// proxy is asked for commands, and no line of the debug stream is lost that is printed meanwhile.
TEST_F(wiring, the_win_server_opens_its_sockets_in_this_order)
{
    test_gateway gateway;
    const gateway_config& config = gateway.config();
    forget_calls();
    gateway.run_win_server();
    const std::lock_guard guard{calls().mutex};
    EXPECT_THAT(calls().opened, ElementsAre("PUSH connect inproc://dbg_dump",
                                            "STREAM bind tcp://*:" + std::to_string(gateway.win_port()),
                                            "UDP bind " + std::to_string(config.port("ports/discovery")),
                                            "ROUTER bind inproc://winserw_channel",
                                            "SUB connect " + endpoint(config, "pub_sub_proxy/port"),
                                            "PUSH connect " + endpoint(config, "pub_sub_proxy/input_port"),
                                            "PUSH connect " + endpoint(config, "message_handler/port")));
}

TEST_F(wiring, the_terminal_server_opens_its_sockets_in_this_order)
{
    test_gateway gateway;
    forget_calls();
    gateway.run_terminal_server();
    const std::lock_guard guard{calls().mutex};
    EXPECT_THAT(calls().opened,
                ElementsAre("PULL bind inproc://dbg_dump", "PUSH connect inproc://dbg_dump",
                            "PUSH connect inproc://winserw_channel",
                            "STREAM bind tcp://*:" + std::to_string(gateway.terminal_port())));
    EXPECT_THAT(calls().timers, IsEmpty());
}

// Bridges get their grace, nodes their lifetimes and servers their silence in these ticks; both of a second
// fall due together, and a bridge is judged before its node ages.
TEST_F(wiring, the_periodic_work_has_its_periods_and_its_order)
{
    test_gateway gateway;
    gateway.run_win_server();
    const std::lock_guard guard{calls().mutex};
    const std::vector<std::pair<size_t, zloop_timer_fn*>> then = {
        {1000, check_client_connection},
        {1000, update_nodes_lifetime},
        {60000, check_proxy_connection},
        {500, check_clients_unsent_messages},
    };
    EXPECT_EQ(calls().timers, then);
}

// PAN-ID requests within a second share one answer.
TEST_F(wiring, requests_for_the_network_version_are_collected_for_a_second)
{
    const win_link link;
    rpl_version_to_win_clients(&link.server());
    const std::lock_guard guard{calls().mutex};
    const std::vector<std::pair<size_t, zloop_timer_fn*>> then = {{1000, rpl_timer_handler}};
    EXPECT_EQ(calls().timers, then);
}

// How much a peer may lag before messages are lost, and how long the last ones are waited for, are the
// library's defaults but for what is named here.
TEST_F(wiring, the_sockets_have_no_options_beside_the_known_ones)
{
    test_gateway gateway;
    gateway.run_win_server();
    gateway.run_terminal_server();
    const WIN_SERVER_t& server = gateway.win_server();
    const std::set<int> none;
    const std::set<int> upstream{ZMQ_TCP_KEEPALIVE, ZMQ_CONNECT_TIMEOUT};
    const struct {
        const char* name;
        zsock_t* sock;
        std::set<int> own; // tested elsewhere
    } cases[] = {
        {"WIN port", server.win_sock, {ZMQ_SNDTIMEO, ZMQ_SNDHWM, ZMQ_RCVHWM}},
        {"requests of other threads", server.interthread_sever_sock, {ZMQ_RCVTIMEO}},
        {"debug stream", server.dbg_client_sock, none},
        {"proxy", server.proxy_sock, upstream},
        {"proxy input", server.proxy_input_sock, upstream},
        {"message handler", server.msg_handler_sock, upstream},
    };
    constexpr int options[] = {
        ZMQ_SNDHWM,        ZMQ_RCVHWM,        ZMQ_LINGER,          ZMQ_SNDTIMEO,         ZMQ_RCVTIMEO,
        ZMQ_SNDBUF,        ZMQ_RCVBUF,        ZMQ_BACKLOG,         ZMQ_IMMEDIATE,        ZMQ_RECONNECT_IVL,
        ZMQ_TCP_KEEPALIVE, ZMQ_HEARTBEAT_IVL, ZMQ_CONNECT_TIMEOUT, ZMQ_RECONNECT_IVL_MAX};
    for (const auto& c : cases) {
        const zsock_ptr plain{zsock_new(zsock_type(c.sock))};
        for (const int option : options) {
            if (c.own.contains(option))
                continue;
            int value = -2;
            int usual = -3;
            size_t size = sizeof value;
            ASSERT_EQ(zmq_getsockopt(zsock_resolve(c.sock), option, &value, &size), 0);
            ASSERT_EQ(zmq_getsockopt(zsock_resolve(plain.get()), option, &usual, &size), 0);
            EXPECT_EQ(value, usual) << c.name << ", option " << option;
        }
    }
}

// A server that vanished without a word is noticed while it is idle, and found again soon after its return; one
// that stands is not cut off, which ZMQ_TCP_MAXRT would do. Operators who vanished are not kept for ever.
TEST_F(wiring, the_sockets_notice_who_has_vanished)
{
    test_gateway gateway;
    gateway.run_win_server();
    gateway.run_terminal_server();
    const WIN_SERVER_t& server = gateway.win_server();
    const auto* terminal =
        static_cast<const TERMINAL_SERVER_t*>(rtls_gateway_get_terminal_server(gateway.handle()));
    const struct {
        const char* name;
        zsock_t* sock;
        int idle_s, interval_s, probes;
        int connect_timeout_ms; // 0: the system's
    } cases[] = {
        {"proxy", server.proxy_sock, 5, 2, 4, 2000},
        {"proxy input", server.proxy_input_sock, 5, 2, 4, 2000},
        {"message handler", server.msg_handler_sock, 5, 2, 4, 2000},
        {"terminal port", terminal->terminal_sock.get(), 60, 10, 3, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto option = [&](int name) {
            int value = -2;
            size_t size = sizeof value;
            EXPECT_EQ(zmq_getsockopt(zsock_resolve(c.sock), name, &value, &size), 0);
            return value;
        };
        EXPECT_EQ(option(ZMQ_TCP_KEEPALIVE), 1);
        EXPECT_EQ(option(ZMQ_TCP_KEEPALIVE_IDLE), c.idle_s);
        EXPECT_EQ(option(ZMQ_TCP_KEEPALIVE_INTVL), c.interval_s);
        EXPECT_EQ(option(ZMQ_TCP_KEEPALIVE_CNT), c.probes);
        EXPECT_EQ(option(ZMQ_CONNECT_TIMEOUT), c.connect_timeout_ms);
        EXPECT_EQ(option(ZMQ_TCP_MAXRT), 0);
    }
}

// A signal handled on an actor's thread would end its loop instead of the daemon's sleep.
TEST_F(wiring, both_actors_run_with_all_signals_blocked)
{
    test_gateway gateway;
    gateway.run_win_server();
    gateway.run_terminal_server();
    const std::lock_guard guard{calls().mutex};
    for (const uint16_t port : {gateway.win_port(), gateway.terminal_port()}) {
        sigset_t blocked = calls().blocked.at("tcp://*:" + std::to_string(port));
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD, SIGUSR1, SIGALRM, SIGWINCH})
            EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
}

// Operators' last lines say how the daemon ends; the debug stream's collector goes before its writers.
TEST_F(wiring, the_terminal_server_ends_before_the_win_server)
{
    test_gateway gateway;
    gateway.run_win_server();
    gateway.run_terminal_server();
    (void)log.take();
    gateway.stop();
    EXPECT_THAT(log.messages("main"), ElementsAre("terminal actor_loop Ending", "win_loop Ending"));
}

// Who waits for the PID file (a supervisor, a test) may connect once it is there.
TEST_F(wiring, the_pid_file_is_written_when_both_servers_are_ready)
{
    for (const char* late : {"ports/win", "ports/terminal"}) {
        SCOPED_TRACE(late);
        const temp_file pid_file{"gateway.pid"};
        const test_gateway gateway{gateway_config{}.set("pidfile", pid_file.path())};
        const std::string endpoint = "tcp://*:" + std::to_string(gateway.config().port(late));
        calls().held_endpoint = endpoint.c_str();
        auto run = std::async(std::launch::async, [&] { return rtls_gateway_run(gateway.handle()); });
        void* win_server = &gateway.win_server();
        void* terminal_server = rtls_gateway_get_terminal_server(gateway.handle());
        EXPECT_TRUE(wait_until(
            [&] { return win_server_is_ready(win_server) || terminal_server_is_ready(terminal_server); }));
        const unsigned sleeps = calls().sleeps;
        EXPECT_TRUE(wait_until([&] { return calls().sleeps >= sleeps + 2; })); // it has looked again
        EXPECT_EQ(access(pid_file.path(), F_OK), -1);
        calls().held_endpoint = nullptr;
        EXPECT_TRUE(run.get());
        EXPECT_EQ(access(pid_file.path(), F_OK), 0);
    }
}

// A gateway that cannot listen to its proxy any more is of no use, and a supervisor starts it again.
TEST_F(wiring, a_proxy_that_cannot_be_connected_again_ends_the_gateway)
{
    const win_link link;
    WIN_SERVER_t& server = link.server();
    server.proxy_sock.reset(zsock_new_sub(server.proxy_full_address.c_str(), ""));
    ASSERT_NE(server.proxy_sock, nullptr);
    (void)log.take();
    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &server), 0);
    calls().failing_connects = 1;
    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &server), 0);
    EXPECT_EQ(calls().failing_connects, 0);
    EXPECT_THAT(log.messages("main"), ElementsAre("check_proxy_connection: zsock_connect: " +
                                                  std::to_string(EMTHREAD) + ", " + zmq_strerror(EMTHREAD)));
    EXPECT_TRUE(is_stop_requested());
    server.proxy_sock.reset();
}

// --- the table of bridges, which another thread copies

namespace {

WIN_SERVER_t* watched_server = nullptr;
bool table_was_locked = false;

// On a thread of its own: whether the one that holds a mutex may try it is undefined.
void try_the_lock()
{
    table_was_locked = !std::async(std::launch::async, [] {
                            const std::unique_lock attempt{watched_server->clients.mutex(), std::try_to_lock};
                            return attempt.owns_lock();
                        }).get();
}

} // namespace

TEST_F(wiring, a_bridge_leaves_the_table_under_its_lock)
{
    const win_link link;
    auto [peer, client] = link.connect();
    auto [leaving, left] = link.connect();
    watched_server = &link.server();
    calls().before_deletion = try_the_lock;
    table_was_locked = false;
    delete_win_client(&link.server(), client->id);
    EXPECT_EQ(link.clients(), 1U);
    EXPECT_TRUE(table_was_locked) << "closed by the gateway";
    table_was_locked = false;
    leaving.close();
    EXPECT_TRUE(link.pump_until([&] { return link.clients() == 0; }));
    EXPECT_TRUE(table_was_locked) << "closed by the peer";
    calls().before_deletion = nullptr;
}

} // namespace rtls
