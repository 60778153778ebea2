#include "link/tapped.h"

#include "base/peer.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace rtls {

// The library's identities of connections are a zero and the connection's number.
static constexpr size_t number_at = 1;
static constexpr size_t number_size = 4;

uint32_t connection_number(bytes_view identity) noexcept
{
    return identity.size() == number_at + number_size ? load_be32(identity, number_at) : 0;
}

static tap_topic bridge_topic(tap_class of, const WIN_CLIENT_t* client, bytes_view identity)
{
    if (client && std::ranges::any_of(client->mac_addr, [](uint8_t byte) { return byte != 0; }))
        return tap_topic{of, client->mac_addr};
    tap_topic topic{of};
    topic.append("id-");
    topic.append_hex(identity.last(std::min(identity.size(), number_size)));
    return topic;
}

void tap_read(WIN_SERVER_t& server, const WIN_CLIENT_t& client, bytes_view bytes) noexcept
{
    const bytes_view identity = frame_bytes(client.id);
    server.tap.begin_read(connection_number(identity));
    if (server.tap.takes(tap_class::link_in))
        server.tap.publish({tap_class::link_in, tap_direction::up, server.tap.read_origin()},
                           bridge_topic(tap_class::link_in, &client, identity), bytes);
}

void tap_written(WIN_SERVER_t& server, const WIN_CLIENT_t* client, bytes_view identity,
                 bytes_view bytes) noexcept
{
    server.tap.publish({tap_class::link_out, tap_direction::down, {connection_number(identity), 0}},
                       bridge_topic(tap_class::link_out, client, identity), bytes);
}

// With what all events of bridges have. More may follow.
static void publish_event(WIN_SERVER_t& server, const char* name, const WIN_CLIENT_t& client,
                          const char* cause = nullptr) noexcept
{
    const bytes_view identity = frame_bytes(client.id);
    const tap_topic bridge = bridge_topic(tap_class::link_in, &client, identity);
    std::array<char, sizeof "255.255.255.255:65535"> address{};
    std::snprintf(address.data(), address.size(), "%s:%u", ipv4_text{client.addr}.c_str(),
                  static_cast<unsigned>(ntohs(client.addr.sin_port)));
    const uint32_t connection = connection_number(identity);
    tap_event event{name};
    event.text("bridge", bridge.rest(tap_class::link_in)).number("connection", connection);
    event.text("address", address.data());
    if (cause)
        event.text("cause", cause);
    server.tap.publish(event, connection);
}

void tap_connected(WIN_SERVER_t& server, const WIN_CLIENT_t& client) noexcept
{
    publish_event(server, "bridge_connected", client);
}

void tap_named(WIN_SERVER_t& server, const WIN_CLIENT_t& client) noexcept
{
    publish_event(server, "bridge_named", client);
}

void tap_closed(WIN_SERVER_t& server, const WIN_CLIENT_t& client, const char* cause) noexcept
{
    publish_event(server, "bridge_closed", client, cause);
}

} // namespace rtls
