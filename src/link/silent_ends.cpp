#include "link/silent_ends.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/peer.h"
#include "link/tapped.h"
#include "link/unsent_messages.h"
#include "net/stream_send.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <new>

namespace rtls {

// Each costs two calls of the system.
static constexpr size_t most_asked = 256;
// Each costs its record, and a line.
static constexpr size_t most_ended = 1024;
// What is old by calls of end_silent_bridges.
static constexpr uint64_t silent_checks = 2;

void end_by_peer(WIN_SERVER_t& server, const WIN_CLIENT_t& client)
{
    const identity_key key{client.id}; // goes with the record
    dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "Connection closed by peer IP:%s:%d MAC:%s ID:[%s]",
              ipv4_text{client.addr}.c_str(), ntohs(client.addr.sin_port),
              colon_mac_text{client.mac_addr}.c_str(), key.c_str());
    server.counts.bridges_closed[bridge_end::peer].add();
    if (server.tap.takes(tap_class::event))
        tap_closed(server, client, "peer");
    lose_with_bridge(server, client);
    server.clients.erase(key.c_str());
}

// Should a notice come after all, it is late.
static void end_without_notice(WIN_SERVER_t& server, const WIN_CLIENT_t& client)
{
    const identity_key key{client.id};
    server.closed_ids.remember(key.c_str());
    end_by_peer(server, client);
}

// --- the library knows no way to it

static int end_unreachable(zloop_t* loop, int timer_id, void* p_server) noexcept;

static void plan_end(WIN_SERVER_t& server)
{
    if (!server.end_timer_is_active && server.actor_loop)
        server.end_timer_is_active = zloop_timer(server.actor_loop, 1, 1, end_unreachable, &server) != -1;
}

// One walk for as many as have room; the others have their end the next time.
static int end_unreachable(zloop_t* /*loop*/, int /*timer_id*/, void* p_server) noexcept
{
    auto& server = *static_cast<WIN_SERVER_t*>(p_server);
    server.end_timer_is_active = false;
    std::array<const WIN_CLIENT_t*, most_ended> found; // not cleared: so many as are found are read
    size_t number = 0;
    server.clients.for_each([&](const WIN_CLIENT_t& client) {
        if (client.is_unreachable && number < found.size())
            found[number++] = &client;
    });
    for (size_t i = 0; i < number; ++i)
        end_without_notice(server, *found[i]);
    if (number == found.size())
        plan_end(server);
    return 0;
}

void note_unreachable(WIN_SERVER_t& server, WIN_CLIENT_t& client)
{
    client.is_unreachable = true;
    plan_end(server);
}

// --- the system knows it no more

// By the library's count of its connections, which begins anywhere and wraps around.
static bool came_before(const WIN_CLIENT_t& one, const WIN_CLIENT_t& other) noexcept
{
    const auto number = [](const WIN_CLIENT_t& client) {
        uint32_t value = 0;
        for (const uint8_t byte : frame_bytes(client.id))
            value = value << 8 | byte;
        return value;
    };
    return static_cast<int32_t>(number(one) - number(other)) < 0;
}

void note_number(WIN_SERVER_t& server, WIN_CLIENT_t& client) noexcept
try {
    if (client.fd < 0)
        return;
    std::string& holder = server.number_holders[client.fd];
    WIN_CLIENT_t* before = server.clients.find(holder.c_str());
    if (before && before != &client && before->fd == client.fd) {
        const bool is_late = came_before(client, *before); // their events came the other way round
        (is_late ? client : *before).has_lost_number = true;
        if (is_late)
            return;
    }
    holder = identity_key{client.id}.c_str();
} catch (const std::bad_alloc&) {
    return; // two records of one number are told apart by their addresses alone
}

// False when it cannot be said. A connection that was reset has no peer any more, although the library may not
// have closed it yet.
static bool has_gone(const WIN_CLIENT_t& client, in_port_t own_port) noexcept
{
    if (client.has_lost_number)
        return true;
    sockaddr_in name{};
    socklen_t length = sizeof name;
    if (client.fd < 0)
        return false;
    if (getsockname(client.fd, reinterpret_cast<sockaddr*>(&name), &length) != 0)
        return errno == EBADF || errno == ENOTSOCK;
    if (name.sin_family != AF_INET || ntohs(name.sin_port) != own_port)
        return true;
    return read_peer_address(client.fd, own_port, name) &&
           (name.sin_addr.s_addr != client.addr.sin_addr.s_addr || name.sin_port != client.addr.sin_port);
}

namespace {

struct gone_bridges {
    std::array<const WIN_CLIENT_t*, most_asked> bridges;
    size_t number = 0;
    size_t next = 0; // position to go on from
};

} // namespace

static gone_bridges find_gone(WIN_SERVER_t& server)
{
    gone_bridges gone;
    size_t position = 0;
    size_t asked = 0;
    server.clients.for_each([&](const WIN_CLIENT_t& client) {
        if (position++ < server.next_end_check || asked == most_asked)
            return;
        gone.next = position;
        if (server.end_checks - client.heard_at_check < silent_checks)
            return;
        ++asked;
        if (has_gone(client, server.win_port))
            gone.bridges[gone.number++] = &client;
    });
    if (gone.next == position)
        gone.next = 0; // from the beginning again
    return gone;
}

void end_silent_bridges(WIN_SERVER_t& server)
{
    ++server.end_checks;
    if (!server.win_sock)
        return;
    const gone_bridges gone = find_gone(server);
    // Asked for after the numbers: what was queued before one was closed is seen.
    if (gone.number > 0 && has_events(zsock_resolve(server.win_sock)))
        return; // the same ones the next time
    server.next_end_check = gone.next;
    for (size_t i = 0; i < gone.number; ++i)
        end_without_notice(server, *gone.bridges[i]);
}

} // namespace rtls
