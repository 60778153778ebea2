#include "server/tap_watch.h"

#include "registry/nodes_container.h"
#include "version.h"

#include <array>
#include <new>
#include <span>

namespace rtls {

// 5,000 a second: a network of that many is told within one.
static constexpr size_t most_expired_in_a_turn = 500;

// Once, as soon as there is somebody to be told.
static void tell_start(WIN_SERVER_t& server) noexcept
{
    if (!server.tap_knows_start)
        server.tap.publish(tap_event{"started"}
                               .text("version", rtls_gateway_version)
                               .number("at", server.tap.opened_at_ns()));
    server.tap_knows_start = true;
}

static void tell_overflow(WIN_SERVER_t& server, bool& known, const overflow_watch& watch,
                          const char* queue) noexcept
{
    const bool is_overflowing = watch.is_overflowing();
    if (known != is_overflowing)
        server.tap.publish(tap_event{is_overflowing ? "overflow" : "exemption"}
                               .text("queue", queue)
                               .number("lost", watch.lost()));
    known = is_overflowing;
}

// A bounded number in a turn: thousands of nodes may expire in one second. Those that have before somebody takes
// events are nobody's news.
static void tell_expired(WIN_SERVER_t& server) noexcept
{
    NODES_CONTAINER_t* nodes = server.nodes();
    if (!nodes)
        return;
    if (!server.tap_follows_expiry)
        nodes->pass_over_expired();
    server.tap_follows_expiry = true;
    std::array<mac_array, most_expired_in_a_turn> macs; // not cleared: as many are read as are taken
    const size_t taken = nodes->take_expired(macs);
    for (const auto& mac : std::span{macs}.first(taken))
        server.tap.publish(tap_event{"node_expired"}.hex("node", mac));
}

int watch_tap(zloop_t* /*loop*/, int /*timer_id*/, void* p_server) noexcept
{
    auto& server = *static_cast<WIN_SERVER_t*>(p_server);
    server.tap.look();
    if (!server.tap.takes(tap_class::event)) {
        server.tap_follows_expiry = false;
        return 0;
    }
    tell_start(server);
    tell_overflow(server, server.tap_knows_handler_overflow, server.to_handler.losses(), "message_handler");
    tell_overflow(server, server.tap_knows_proxy_input_overflow, server.to_proxy_input.losses(),
                  "proxy_input");
    tell_expired(server);
    return 0;
}

bool has_tap(const WIN_SERVER_t* server) noexcept
{
    return server && server->tap.is_configured();
}

void tap_from_elsewhere(WIN_SERVER_t* server, const tap_event& event) noexcept
try {
    if (has_tap(server))
        server->calls_of_strangers.post([server, event] {
            if (server->tap.takes(tap_class::event))
                server->tap.publish(event);
        });
} catch (const std::bad_alloc&) {
    return; // the call's own memory; others are told
}

void tap_stopping(WIN_SERVER_t& server) noexcept
{
    if (server.tap.takes(tap_class::event))
        server.tap.publish(tap_event{"stopped"});
}

} // namespace rtls
