#include "bridged_gateway.h"

#include "link/win_server_win_clients.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace rtls {

static constexpr int patience_ms = 60'000; // also under an instrument, on a machine with much else to do

// Beside the WIN port and the proxy: the actor's pipe, the operators' requests, discovery, the calls of other
// threads, and what watches three links.
static constexpr size_t idle_sockets = 7;

static void require(bool condition, const char* what)
{
    if (condition)
        return;
    std::perror(what);
    std::abort();
}

static int connect_to(in_port_t port)
{
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
    return connection;
}

static int end_loop(zloop_t* /*loop*/, int /*timer_id*/, void* /*argument*/)
{
    return -1;
}

bridged_gateway::bridged_gateway(size_t bridges) : m_bridges(bridges)
{
    const int port = zsock_bind(server().win_sock, "tcp://127.0.0.1:*");
    require(port > 0, "zsock_bind");
    server().win_port = static_cast<in_port_t>(port);
    for (connected_bridge& bridge : m_bridges)
        accept_bridge(bridge);
    read(server().win_sock, handle_win_clients);
    for (size_t i = 0; i < idle_sockets; ++i) {
        m_idle_sockets.emplace_back(zsock_new_pull(("@" + unused_endpoint()).c_str()));
        zloop_reader(server().actor_loop, m_idle_sockets.back().get(), zloop_end_event, nullptr);
    }
    zloop_timer(server().actor_loop, patience_ms, 0, end_loop, nullptr);
}

bridged_gateway::~bridged_gateway()
{
    server().actor_loop.reset(); // before its sockets
    for (const connected_bridge& bridge : m_bridges)
        close(bridge.connection);
}

// Connects to the WIN port, and has the server take the connection in.
void bridged_gateway::accept_bridge(connected_bridge& bridge)
{
    const size_t before = server().clients.size();
    bridge.connection = connect_to(server().win_port);
    zmq_pollitem_t port{zsock_resolve(server().win_sock), 0, ZMQ_POLLIN, 0};
    while (server().clients.size() == before && zmq_poll(&port, 1, patience_ms) > 0)
        handle_win_clients(server().actor_loop, server().win_sock, &server());
    const auto is_known = [this](const WIN_CLIENT_t& client) {
        return &client == &this->bridge() ||
               std::ranges::any_of(m_bridges, [&](const auto& other) { return other.record == &client; });
    };
    server().clients.for_each([&](WIN_CLIENT_t& client) {
        if (!is_known(client))
            bridge.record = &client;
    });
    require(bridge.record, "no bridge");
    bridge.replies.reset(win_client_new(bridge.record->id));
}

int bridged_gateway::read_one(zloop_t* loop, zsock_t* socket, void* p_reader) noexcept
{
    const auto& reader = *static_cast<const loop_reader*>(p_reader);
    bridged_gateway& gateway = *reader.gateway;
    reader.handler(loop, socket, &gateway.server());
    return gateway.m_figure->value() >= gateway.m_wanted ? -1 : 0;
}

void bridged_gateway::read(zsock_t* socket, zloop_reader_fn* handler)
{
    require(zloop_reader(server().actor_loop, socket, read_one,
                         &m_readers.emplace_back(loop_reader{this, handler})) == 0,
            "zloop_reader");
}

bool bridged_gateway::run_until(const counter& figure, uint64_t value)
{
    m_figure = &figure;
    m_wanted = value;
    const int64_t patient_until = zclock_mono() + patience_ms;
    while (figure.value() < value && zclock_mono() < patient_until)
        zloop_start(server().actor_loop);
    return figure.value() == value;
}

// What is no message, the greeting, does not count.
bool bridged_gateway::take_from_bridges(size_t expected)
{
    std::vector<pollfd> items;
    for (const connected_bridge& bridge : m_bridges)
        items.push_back({bridge.connection, POLLIN, 0});
    size_t taken = 0;
    while (taken < expected && poll(items.data(), items.size(), patience_ms) > 0)
        for (size_t i = 0; i < items.size(); ++i) {
            std::array<uint8_t, 65536> bytes;
            const ssize_t size =
                items[i].revents == 0 ? 0 : recv(items[i].fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (size > 0)
                win_client_decode(*m_bridges[i].replies, {bytes.data(), static_cast<size_t>(size)},
                                  [&](WIN_CLIENT_t&) { ++taken; });
        }
    (void)zsock_events(server().win_sock); // has it notice that the connections have been emptied
    return taken == expected;
}

std::string unused_endpoint()
{
    static int number = 0;
    return "inproc://benchmark_" + std::to_string(++number);
}

} // namespace rtls
