#include "link/tapped.h"

#include "base/peer.h"

#include <algorithm>

namespace rtls {

// The library's identities of connections are a zero and the connection's number.
static constexpr size_t number_at = 1;
static constexpr size_t number_size = 4;

static uint32_t connection_number(bytes_view identity)
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

} // namespace rtls
