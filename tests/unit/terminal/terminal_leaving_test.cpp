// Operators who leave, and operators who take nothing any more.
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "services.h"
#include "support/failing_new.h"
#include "support/free_port.h"
#include "support/hex_bytes.h"
#include "support/tcp_listener.h"
#include "support/tcp_peer.h"
#include "support/terminal_command_fixture.h"
#include "support/wait.h"
#include "terminal/operators_port.h"
#include "terminal/terminal_server_private.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

using terminal_leaving_test = terminal_command_fixture;

namespace {

// A TCP connection within this process.
class tcp_connection {
public:
    explicit tcp_connection(uint16_t port)
        : m_listener{port}, m_connecting{port}, m_accepted{m_listener.accept()}
    {
    }
    ~tcp_connection() { close(m_accepted); }
    tcp_connection(const tcp_connection&) = delete;
    tcp_connection& operator=(const tcp_connection&) = delete;

    int accepted_fd() const { return m_accepted; }
    sockaddr_in peer_address() const // of the accepting end
    {
        return ipv4_address("127.0.0.1", m_connecting.port());
    }
    bool is_cut() const { return send(m_accepted, "x", 1, MSG_NOSIGNAL) < 0; }

private:
    tcp_listener m_listener;
    tcp_peer m_connecting;
    int m_accepted;
};

} // namespace

// --- quit

TEST_F(terminal_leaving_test, quit_says_goodbye_closes_and_forgets)
{
    for (const char* word : {"q", "QUIT"}) {
        EXPECT_EQ(answers_to(word), (texts_t{"bye bye.\n", ""})) << word;
        EXPECT_EQ(zhashx_size(rtls_gateway_get_terminal_clients(m_gateway.handle())), 0u);
        EXPECT_THAT(m_log.messages("terminal"),
                    testing::Contains("CONS: Client 6F70657261746F72 disconnected"));
        m_client = add_operator(operator_id, "10.0.0.1", 1001);
    }
}

// Whoever does not read cannot be closed by a frame, so the connection itself is cut; but only that.
TEST_F(terminal_leaving_test, quit_that_cannot_be_told_cuts_the_connection_of_who_does_not_read)
{
    const struct {
        const char* given;
        int socket_type; // whose identity frames fail: a full PUSH with EAGAIN, a STREAM with EHOSTUNREACH
        bool is_same_peer;
        bool is_same_port;
        bool is_peer_proven;
        bool then_cut;
    } cases[] = {
        {"an operator who does not read", ZMQ_PUSH, true, true, true, true},
        {"an operator who is gone", ZMQ_STREAM, true, true, true, false},
        {"a descriptor that has another owner", ZMQ_PUSH, false, true, true, false},
        {"a descriptor of another port", ZMQ_PUSH, true, false, true, false},
        {"an address that may be another's", ZMQ_PUSH, true, true, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const tcp_connection connection{c.is_same_port ? m_gateway.terminal_port() : free_port()};
        m_client->fd = connection.accepted_fd();
        m_client->client_addr = connection.peer_address();
        m_client->is_peer_proven = c.is_peer_proven;
        if (!c.is_same_peer)
            m_client->client_addr.sin_port = static_cast<in_port_t>(~m_client->client_addr.sin_port);
        m_terminal.reset(zsock_new(c.socket_type));
        zsock_set_sndtimeo(m_terminal.get(), 0);
        run("quit");
        EXPECT_EQ(connection.is_cut(), c.then_cut);
        EXPECT_EQ(zhashx_size(rtls_gateway_get_terminal_clients(m_gateway.handle())), 1u)
            << "the record stays until the disconnect";
    }
}

// --- An operator who takes nothing

TEST_F(terminal_leaving_test, who_does_not_read_is_waited_for_once)
{
    EXPECT_EQ(answers_to("sub"), texts_t{"subscribed * ok.\n"});
    stall();
    constexpr int64_t time_out = 200;
    zsock_set_sndtimeo(m_terminal.get(), time_out);
    const auto time_of = [this](const char* command) {
        const int64_t begin = zclock_mono();
        run(command);
        return zclock_mono() - begin;
    };
    EXPECT_GE(time_of("sub"), time_out - 1);
    for (const char* command : {"sub", "info", "dbg", "fw list", "reboot 1a2b", "quit"})
        EXPECT_LT(time_of(command), time_out / 2) << command;

    ASSERT_EQ(zsock_connect(m_terminal.get(), "%s", m_endpoint.c_str()), 0); // now he reads
    EXPECT_EQ(answers_to("sub"), texts_t{"subscribed * ok.\n"});
    stall();
    zsock_set_sndtimeo(m_terminal.get(), time_out);
    EXPECT_GE(time_of("sub"), time_out - 1);
}

TEST_F(terminal_leaving_test, who_never_took_anything_is_not_waited_for)
{
    stall();
    constexpr int64_t time_out = 2000;
    zsock_set_sndtimeo(m_terminal.get(), time_out);
    const int64_t begin = zclock_mono();
    run("sub");
    EXPECT_LT(zclock_mono() - begin, time_out / 2);
}

// Without an actor `fw get` is answered as any other command; what it does with one has tests of its own.
TEST_F(terminal_leaving_test, without_an_identity_frame_no_text_is_sent)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    stall();
    for (const char* command :
         {"h",    "pcl",  "pn",      "pnf",      "info",     "dbg",         "dbg raw y", "dbg x",
          "sub",  "sub-", "grep x",  "grep (",   "grep-",    "reboot 1a2b", "reboot",    "del 1a2b",
          "quit", "fw",   "fw list", "fw get x", "fw del 1", "huh"})
        run(command);
    EXPECT_EQ(zhashx_size(rtls_gateway_get_terminal_clients(m_gateway.handle())), 1u) << "quit";
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 1u) << "del";
    EXPECT_EQ(errors(), texts_t{}) << "a download was tried, where no actor would have it done elsewhere";
    // The socket is in step: the next pair arrives as it is.
    ASSERT_EQ(zsock_connect(m_terminal.get(), "%s", m_endpoint.c_str()), 0);
    EXPECT_EQ(finish_and_take(), texts_t{});
}

// --- An operator whose image is fetched

// What he types behind it waits for its end, and so does his leave.
TEST_F(terminal_leaving_test, the_end_of_an_image_is_told_even_where_memory_is_short)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    const tcp_connection connection{m_gateway.terminal_port()};
    m_client->fd = connection.accepted_fd();
    m_client->client_addr = connection.peer_address();
    const services& gateway = *static_cast<services*>(m_gateway.handle());
    TERMINAL_SERVER_t& server = *gateway.terminal_server;
    server.calls = std::make_shared<call_queue>();
    static std::vector<int> ended;
    ended.clear();
    server.fetch_ended = [](TERMINAL_SERVER_t&, const std::string&, int index) { ended.push_back(index); };
    // On the one thread that there is to fetch.
    ASSERT_TRUE(gateway.downloads->order([] { fail_next_allocations(1000); }));
    ASSERT_TRUE(wait_until([&] {
        const auto load = gateway.downloads->current_load();
        return load.running == 0 && load.waiting == 0;
    }));
    run("fw get file:///nowhere/an-image-whose-name-takes-memory.bin");
    EXPECT_TRUE(m_client->is_fetching);
    EXPECT_TRUE(repeat_until([] { return !ended.empty(); }, [&] { server.calls->make_calls(); }));
    EXPECT_THAT(ended, testing::ElementsAre(-1));
    server.calls.reset();
}

TEST_F(terminal_leaving_test, what_was_typed_behind_an_image_is_done_where_memory_is_short)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2C"));
    m_client->is_fetching = true;
    m_client->typed_ahead = {"del 1a2b", "del 1a2c"};
    m_client->typed_ahead_bytes = 16;
    TERMINAL_SERVER_t& server = *static_cast<services*>(m_gateway.handle())->terminal_server;
    server.terminal_sock = std::move(m_terminal);
    const std::string id_str = "6F70657261746F72";
    fail_next_allocations(1); // the text of the answer
    answer_fetch(server, id_str, -1);
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 0u);
    EXPECT_EQ(m_client->typed_ahead_bytes, 0u);
    EXPECT_THAT(m_log.messages("main"), testing::Contains("answer_fetch: out of memory!"));
}

} // namespace rtls
