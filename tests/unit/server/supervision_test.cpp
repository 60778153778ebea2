#include "link/sending.h"
#include "link/unsent_messages.h"
#include "link/win_server_private.h"
#include "server/supervision.h"

#include "base/czmq_ptr.h"
#include "base/peer.h"
#include "base/signals.h"
#include "registry/nodes_container.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

// Ticks of the client check, a second apart.
class clock_of_checks {
public:
    explicit clock_of_checks(const win_link& link) : m_link(link) {}
    void tick(int64_t after_ms = 1000)
    {
        m_now += after_ms;
        EXPECT_EQ(check_client_connection_at(&m_link.server(), m_now), 0);
    }

private:
    const win_link& m_link;
    int64_t m_now = 1;
};

std::string closed_line(const WIN_CLIENT_t& client, const char* mac = "00000000000:00000")
{
    return "SLIP: Connection closed by gateway IP:127.0.0.1:" + std::to_string(ntohs(client.addr.sin_port)) +
           " MAC:" + mac + " ID:[" + identity_key{client.id}.c_str() + "]";
}

void name_bridge(const win_link& link, WIN_CLIENT_t* client, uint8_t last_byte)
{
    const uint8_t mac[mac_size] = {0x01, 0x02, 0x03, 0x04, 0x05, 0xA6, 0xB7, last_byte};
    link.server().clients.set_mac_addr(*client, mac);
}

NODE_t* node_of(const win_link& link, const WIN_CLIENT_t& client)
{
    const nodes_guard guard{link.nodes()};
    return nodes_container_find_by_mac(link.nodes(), client.mac_addr);
}

// Message number `n`, told apart from the filling that a stalled peer finds before it.
bytes_t numbered(unsigned n)
{
    return {'#', static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n), static_cast<uint8_t>(n)};
}

std::string framed(unsigned n)
{
    std::string frame = "\xF5";
    for (const uint8_t b : numbered(n)) {
        if (b >= 0xF5 && b <= 0xF7)
            frame += '\xF6';
        frame += static_cast<char>(b);
    }
    return frame + '\xF7';
}

} // namespace

TEST(check_client_connection, a_silent_bridge_is_closed_on_the_sixth_tick)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    log.take();
    const std::string then = closed_line(*client);
    clock_of_checks clock{link};
    for (unsigned left = 5; left-- > 0;) {
        clock.tick();
        ASSERT_EQ(client->connection_delay, left);
        ASSERT_EQ(link.clients(), 1U);
    }
    clock.tick();
    EXPECT_EQ(link.clients(), 0U);
    EXPECT_THAT(log.messages("win"), ElementsAre(then));
    EXPECT_TRUE(link.pump_until([&, &peer = peer] { return peer.is_closed(std::chrono::milliseconds(1)); }));
}

TEST(check_client_connection, prints_the_bridge_by_its_mac)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    name_bridge(link, client, 0xC8);
    client->connection_delay = 0;
    log.take();
    const std::string then = closed_line(*client, "0102030405a:6b7c8");
    clock_of_checks{link}.tick();
    EXPECT_THAT(log.messages("win"), ElementsAre(then));
}

TEST(check_client_connection, a_bridge_is_wanted_while_its_own_node_lives_on_its_connection)
{
    const win_link link;
    auto [peer, client] = link.connect();
    auto [other_peer, other_client] = link.connect();
    name_bridge(link, client, 1);
    other_client->connection_delay = 1000; // only here to lead elsewhere
    clock_of_checks clock{link};
    const struct {
        const char* given;
        std::function<void()> change;
        unsigned then; // of a delay of 3 before the tick
    } cases[] = {
        {"no node", [] {}, 2},
        {"a living node", [&, c = client] { link.make_wanted(*c); }, 5},
        {"an expired node", [&, c = client] { node_of(link, *c)->lifetime = 0; }, 2},
        {"a node that is back", [&, c = client] { node_of(link, *c)->lifetime = 1; }, 5},
        {"a node on another connection",
         [&, c = client, o = other_client] { node_update_win_client_ID(node_of(link, *c), o->id); }, 2},
        {"a node on no connection", [&, c = client] { node_of(link, *c)->win_client_id.reset(); }, 2},
    };
    for (const auto& c : cases) {
        c.change();
        client->connection_delay = 3;
        clock.tick();
        EXPECT_EQ(client->connection_delay, c.then) << c.given;
    }
}

TEST(check_client_connection, missed_ticks_that_come_in_a_row_count_as_one)
{
    const win_link link;
    auto [peer, client] = link.connect();
    clock_of_checks clock{link};
    clock.tick();
    EXPECT_EQ(client->connection_delay, 4U);
    for (int i = 0; i < 10; ++i)
        clock.tick(5);
    EXPECT_EQ(client->connection_delay, 4U);
    clock.tick(10'000); // ten of them were missed
    for (int i = 0; i < 10; ++i)
        clock.tick(1);
    EXPECT_EQ(client->connection_delay, 3U);
}

TEST(check_client_connection, a_late_tick_takes_nothing_from_the_punctual_one_behind_it)
{
    const win_link link;
    auto [peer, client] = link.connect();
    clock_of_checks clock{link};
    clock.tick();
    clock.tick(1650);
    EXPECT_EQ(client->connection_delay, 3U);
    clock.tick(350);
    EXPECT_EQ(client->connection_delay, 2U);
}

TEST(check_client_connection, closes_all_unwanted_bridges_in_one_tick_in_table_order)
{
    log_capture log;
    const win_link link;
    std::vector<win_link::bridge_t> bridges;
    for (uint8_t i = 0; i < 60; ++i) {
        bridges.push_back(link.connect());
        bridges.back().client->connection_delay = 0;
        if (i % 6 == 0) {
            name_bridge(link, bridges.back().client, i);
            link.make_wanted(*bridges.back().client);
        }
    }
    std::vector<std::string> then;
    zhashx_t* clients = link.server().clients.unguarded();
    for (void* item = zhashx_first(clients); item; item = zhashx_next(clients))
        if (const auto* client = static_cast<WIN_CLIENT_t*>(item); client->mac_addr[0] == 0)
            then.push_back(closed_line(*client));
    ASSERT_EQ(then.size(), 50U);
    log.take();
    clock_of_checks{link}.tick();
    EXPECT_EQ(link.clients(), 10U);
    EXPECT_THAT(log.messages("win"), ElementsAreArray(then));
}

TEST(supervision_timers, without_nodes_do_not_end_the_loop)
{
    log_capture log;
    const win_link link;
    log.take();
    NODES_CONTAINER_t* nodes = std::exchange(link.server().rtls_gateway->nodes, nullptr);
    EXPECT_EQ(check_client_connection(link.loop(), 1, &link.server()), 1);
    EXPECT_EQ(update_nodes_lifetime(link.loop(), 1, &link.server()), 1);
    link.server().rtls_gateway->nodes = nodes;
    EXPECT_THAT(log.messages("main"), ElementsAre("check_client_connection: null pointer to nodes container!",
                                                  "update_nodes_lifetime: null nodes container not found!"));
}

TEST(supervision_timers, run_by_the_real_clock_as_well)
{
    const win_link link;
    auto [peer, client] = link.connect();
    EXPECT_EQ(check_client_connection(link.loop(), 1, &link.server()), 0);
    EXPECT_EQ(client->connection_delay, 4U);
    EXPECT_EQ(check_client_connection(link.loop(), 1, &link.server()), 0);
    EXPECT_EQ(client->connection_delay, 4U);
}

TEST(update_nodes_lifetime, ages_every_node_by_one_tick)
{
    const win_link link;
    auto [peer, client] = link.connect();
    name_bridge(link, client, 1);
    link.make_wanted(*client);
    EXPECT_EQ(update_nodes_lifetime(link.loop(), 1, &link.server()), 0);
    EXPECT_EQ(node_of(link, *client)->lifetime, 299);
}

TEST(check_proxy_connection, reconnects_from_the_second_silent_tick_on)
{
    const win_link link;
    zsock_t* proxy = zsock_new(ZMQ_PUB);
    const int port = zsock_bind(proxy, "tcp://127.0.0.1:*");
    ASSERT_GT(port, 0);
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    WIN_SERVER_t& server = link.server();
    server.proxy_full_address = endpoint;
    server.proxy_sock.reset(zsock_new(ZMQ_SUB));
    zsock_set_subscribe(server.proxy_sock, "");
    zactor_t* monitor = zactor_new(zmonitor, server.proxy_sock);
    zstr_sendx(monitor, "LISTEN", "CONNECTED", NULL);
    zstr_send(monitor, "START");
    zsock_wait(monitor);
    zsock_set_rcvtimeo(monitor, 5000);
    const auto next_event = [&] {
        const zmsg_ptr event{zmsg_recv(monitor)};
        const zstr_ptr name{event ? zmsg_popstr(event.get()) : nullptr};
        return std::string(name ? name.get() : "nothing");
    };
    zsock_connect(server.proxy_sock, "%s", endpoint.c_str());
    EXPECT_EQ(next_event(), "CONNECTED");

    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &server), 0);
    EXPECT_TRUE(server.proxy_is_silent);
    for (int silent_tick = 0; silent_tick < 2; ++silent_tick) {
        EXPECT_EQ(check_proxy_connection(link.loop(), 1, &server), 0);
        EXPECT_TRUE(server.proxy_is_silent);
        EXPECT_EQ(next_event(), "CONNECTED");
    }
    zsock_set_rcvtimeo(server.proxy_sock, 10);
    zstr_ptr received;
    EXPECT_TRUE(repeat_until([&] { return received != nullptr; },
                             [&] {
                                 zstr_send(proxy, "0E08");
                                 received.reset(zstr_recv(server.proxy_sock));
                             }))
        << "the subscription survives";
    server.proxy_is_silent = false; // a message came
    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &server), 0);
    zsock_set_rcvtimeo(monitor, 50);
    EXPECT_EQ(next_event(), "nothing") << "no reconnect";
    EXPECT_FALSE(is_stop_requested());

    zactor_destroy(&monitor);
    server.proxy_sock.reset();
    zsock_destroy(&proxy);
}

TEST(check_proxy_connection, a_failed_reconnect_ends_the_gateway)
{
    log_capture log;
    const win_link link;
    link.server().proxy_sock.reset(zsock_new(ZMQ_SUB)); // never connected, so it cannot be disconnected
    log.take();
    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &link.server()), 0);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_FALSE(is_stop_requested());
    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &link.server()), 0);
    EXPECT_THAT(log.messages("main"),
                ElementsAre("check_proxy_connection: zsock_disconnect: 2, No such file or directory"));
    EXPECT_TRUE(is_stop_requested());
    clear_stop();
    link.server().proxy_sock.reset();
}

TEST(unsent_messages, go_out_oldest_first_with_a_line_each)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    ASSERT_TRUE(data_to_cache(&link.server(), client, hex("01 02").data(), 2));
    ASSERT_TRUE(data_to_cache(&link.server(), client, hex("F5 F7 00").data(), 3));
    client->unsent_overflow = true;
    log.take();
    EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0);
    EXPECT_EQ(peer.receive(5), std::string("\x01\x02\xF5\xF7\x00", 5));
    EXPECT_EQ(client->unsent_messages.bytes(), 0U);
    EXPECT_FALSE(client->unsent_overflow);
    const std::string tail =
        " 127.0.0.1:" + std::to_string(peer.port()) + " [" + identity_key{client->id}.c_str() + "]";
    EXPECT_THAT(log.messages("raw"),
                ElementsAre("SLIP_RAW_OUTPUT_FROM_CACHE: 0102 [2] cache size: 1" + tail,
                            "SLIP_RAW_OUTPUT_FROM_CACHE: F5F700 [3] cache size: 0" + tail));

    EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0); // nothing waits
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(unsent_messages, of_a_stalled_bridge_wait_in_order_until_it_reads)
{
    constexpr unsigned count = 300;
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    std::string then = link.fill(*client);
    for (unsigned n = 0; n < count; ++n) {
        ASSERT_TRUE(data_to_win_client(&link.server(), client->id, numbered(n).data(), 4));
        then += framed(n);
    }
    ASSERT_EQ(client->unsent_messages.size(), count);
    const size_t bytes = client->unsent_messages.bytes();
    {
        log_capture log;
        EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0);
        EXPECT_THAT(log.take(), IsEmpty());
    }
    EXPECT_EQ(client->unsent_messages.size(), count);
    EXPECT_EQ(client->unsent_messages.bytes(), bytes);

    std::string received;
    EXPECT_TRUE(repeat_until([&] { return received.size() >= then.size(); },
                             [&, &peer = peer] {
                                 received += peer.receive_available();
                                 check_clients_unsent_messages(link.loop(), 1, &link.server());
                             }));
    EXPECT_TRUE(received == then) << received.size() << " of " << then.size() << " bytes";
    EXPECT_EQ(client->unsent_messages.bytes(), 0U);
    EXPECT_EQ(client->unsent_messages.size(), 0U);
}

TEST(unsent_messages, of_many_stalled_bridges_cost_the_others_no_time)
{
    const win_link link{10};
    std::vector<win_link::bridge_t> bridges;
    for (int i = 0; i < 5; ++i) {
        bridges.push_back(link.connect(4096));
        (void)link.fill(*bridges.back().client);
        ASSERT_TRUE(data_to_win_client(&link.server(), bridges.back().client->id, numbered(1).data(), 4));
    }
    zsock_set_sndtimeo(link.server().win_sock, 10000);
    const int64_t start = zclock_mono();
    EXPECT_EQ(check_clients_unsent_messages(link.loop(), 1, &link.server()), 0);
    EXPECT_LT(zclock_mono() - start, 5000) << "not even one time-out";
    for (const auto& bridge : bridges)
        EXPECT_EQ(bridge.client->unsent_messages.size(), 1U);
}

TEST(unsent_messages, beyond_the_ceiling_are_lost_and_reported_once_until_the_cache_is_empty)
{
    log_capture log;
    const win_link link{10};
    auto [peer, client] = link.connect(4096);
    const auto* one = reinterpret_cast<const uint8_t*>("x");
    const auto overflow = [&, client = client] {
        unsent_queue& queue = client->unsent_messages;
        ASSERT_TRUE(queue.append(bytes_t(unsent_messages_limit - queue.bytes())));
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(data_to_cache(&link.server(), client, one, 1));
        const bool one_waits = queue.size() == 2;
        queue.clear();
        if (one_waits) {
            ASSERT_TRUE(queue.append({one, 1}));
        }
    };
    const std::string then = "data_to_cache: win client [" + std::string(identity_key{client->id}.c_str()) +
                             "] IP 127.0.0.1:" + std::to_string(peer.port()) +
                             " does not read: 16777216 bytes wait for it, messages are lost!";
    log.take();
    overflow();
    EXPECT_THAT(log.messages("main"), ElementsAre(then));
    ASSERT_TRUE(data_to_cache(&link.server(), client, one, 1)); // room again, but the episode goes on
    overflow();
    EXPECT_THAT(log.messages("main"), IsEmpty());
    unsent_messages_to_win_client(&link.server(), client);
    ASSERT_EQ(client->unsent_messages.size(), 0U);
    overflow();
    EXPECT_THAT(log.messages("main"), ElementsAre(then));
}

} // namespace rtls
