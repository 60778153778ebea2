#include "support/win_link.h"
#include "link/sending.h"
#include "link/win_server_win_clients.h"

#include "registry/nodes_container.h"
#include "support/sock.h"
#include "support/tcp_state.h"
#include "support/wait.h"

#include <chrono>
#include <stdexcept>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

win_link::win_link(int high_water_mark)
{
    server().win_sock.reset(zsock_new(ZMQ_STREAM));
    server().actor_loop.reset(zloop_new());
    if (high_water_mark > 0)
        zsock_set_sndhwm(server().win_sock, high_water_mark);
    zsock_set_sndtimeo(server().win_sock, 100);
    const int port = zsock_bind(server().win_sock, "tcp://127.0.0.1:*");
    if (port <= 0)
        throw std::runtime_error("win_link: no port");
    m_port = server().win_port = static_cast<uint16_t>(port);
}

win_link::~win_link()
{
    server().actor_loop.reset();
    server().win_sock.reset();
}

bool win_link::pump_until(const std::function<bool()>& done) const
{
    return repeat_until(done, [this] {
        zmq_pollitem_t item{zsock_resolve(server().win_sock), 0, ZMQ_POLLIN, 0};
        if (zmq_poll(&item, 1, 10) > 0)
            handle_win_clients(loop(), server().win_sock, &server());
    });
}

WIN_CLIENT_t* win_link::find(uint16_t peer_port) const
{
    for (void* item = zhashx_first(server().clients.unguarded()); item;
         item = zhashx_next(server().clients.unguarded()))
        if (ntohs(static_cast<WIN_CLIENT_t*>(item)->addr.sin_port) == peer_port)
            return static_cast<WIN_CLIENT_t*>(item);
    return nullptr;
}

std::vector<win_link::linked_bridge> win_link::connect_many(size_t count) const
{
    std::vector<linked_bridge> made;
    while (made.size() < count)
        made.push_back(connect());
    return made;
}

win_link::linked_bridge win_link::connect(int receive_buffer) const
{
    tcp_peer peer{port(), receive_buffer};
    if (!pump_until([&] { return find(peer.port()) != nullptr; }) || peer.receive(5) != "sync\n")
        throw std::runtime_error("win_link: the connection is not greeted");
    WIN_CLIENT_t* client = find(peer.port());
    return {std::move(peer), client};
}

void win_link::make_wanted(const WIN_CLIENT_t& client) const
{
    const nodes_guard guard{*nodes()};
    NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), client.mac_addr, nullptr, 0);
    node->lifetime = 300;
    node_update_win_client_ID(node, client.id);
}

// A message there and back through the library's thread, which serves one thing after the other: what it
// was asked to do before, it has done then.
class library_round_trip {
public:
    library_round_trip() : m_in(zsock_new(ZMQ_PULL)), m_out(zsock_new(ZMQ_PUSH))
    {
        const int port = zsock_bind(m_in.get(), "tcp://127.0.0.1:*");
        zsock_connect(m_out.get(), "tcp://127.0.0.1:%d", port);
        zsock_set_rcvtimeo(m_in.get(), static_cast<int>(patience.count()));
        make();
    }
    void make() const
    {
        zstr_send(m_out.get(), "there");
        if (!zstr_ptr{zstr_recv(m_in.get())})
            throw std::runtime_error("win_link: the library does not answer");
    }

private:
    zsock_ptr m_in;
    zsock_ptr m_out;
};

std::string win_link::fill(WIN_CLIENT_t& client) const
{
    const std::string block(32768, '.');
    const auto* bytes = reinterpret_cast<const uint8_t*>(block.data());
    tcp_fix_send_buffer(client.fd);
    const library_round_trip library;
    const int time_out = zsock_sndtimeo(server().win_sock);
    zsock_set_sndtimeo(server().win_sock, 1); // not 0: a call that waits also learns of room
    std::string sent;
    bool is_full = false;
    const auto attempt = [&] {
        library.make();
        const bool could_move = tcp_is_moving(client.fd);
        const bool taken = esc_data_to_win_client(&server(), client.id, bytes, block.size());
        if (taken)
            sent += block;
        is_full = !taken && !could_move && !tcp_is_moving(client.fd);
    };
    if (!repeat_until([&] { return is_full; }, attempt))
        throw std::runtime_error("win_link: the connection is never full");
    zsock_set_sndtimeo(server().win_sock, time_out);
    return sent;
}

} // namespace rtls
