#include "server/supervision.h"

#include "base/czmq_ptr.h"
#include "base/peer.h"
#include "base/signals.h"
#include "link/win_server_private.h"
#include "registry/nodes_container.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "support/stop.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

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
    const nodes_guard guard{*link.nodes()};
    return nodes_container_find_by_mac(link.nodes(), client.mac_addr);
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
    std::vector<win_link::linked_bridge> bridges;
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
    EXPECT_EQ(link.server().counts.bridges_closed[bridge_end::unwanted].value(), 50U);
    EXPECT_EQ(link.server().counts.bridges_closed.sum(), 50U);
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

// A mend that could not be done has taken the endpoint off the library's books.
TEST(check_proxy_connection, leaves_a_link_alone_that_is_being_mended)
{
    log_capture log;
    const win_link link;
    WIN_SERVER_t& server = link.server();
    const zsock_ptr wrong{zsock_new(ZMQ_REP)};
    const int port = zsock_bind(wrong.get(), "tcp://127.0.0.1:*");
    server.proxy_full_address = "tcp://nobody:knows:this";
    server.proxy_sock.reset(zsock_new(ZMQ_SUB));
    server.proxy_link.open(server.proxy_sock, server.proxy_full_address, io_thread_of_proxy);
    ASSERT_TRUE(server.proxy_link.join(link.loop()));
    ASSERT_EQ(zsock_connect(server.proxy_sock, "tcp://127.0.0.1:%d", port), 0);
    const auto failed = [&] {
        const auto said = log.messages("main");
        return std::any_of(said.begin(), said.end(), [](const std::string& line) {
            return line.starts_with("link_watch: zsock_connect: ");
        });
    };
    ASSERT_TRUE(run_until(link.loop(), failed));
    server.proxy_is_silent = true;
    EXPECT_EQ(check_proxy_connection(link.loop(), 1, &server), 0);
    EXPECT_FALSE(is_stop_requested());
    clear_stop();
    server.proxy_link.close();
    server.proxy_sock.reset();
}

} // namespace rtls
