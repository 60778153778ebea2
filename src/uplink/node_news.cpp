#include "uplink/node_news.h"

#include "base/peer.h"
#include "link/tapped.h"

#include <algorithm>

namespace rtls {

// A node has been active since it was made, unless this is its first message.
void node_news::note_sender(const NODE_t& node, bytes_view connection) noexcept
{
    m_is_new = node.last_activity.tv_sec == 0 && node.last_activity.tv_usec == 0;
    m_has_new_parent = false;
    std::ranges::copy(node.mac_addr, m_node.begin());
    const bytes_view last = frame_bytes(node.win_client_id.get());
    m_has_new_route = !last.empty() && !connection.empty() && !std::ranges::equal(last, connection);
    m_last_connection = connection_number(last);
}

void node_news::note_parent(const NODE_t& node, bytes_view parent) noexcept
{
    std::ranges::copy(node.parent_addr, m_last_parent.begin());
    std::ranges::copy(parent, m_parent.begin());
    m_has_new_parent = m_last_parent != m_parent && m_last_parent != mac{}; // none: it names its first one
}

void node_news::publish(tap_socket& tap, uint32_t connection) const noexcept
{
    if (m_is_new)
        tap.publish(tap_event{"node_new"}.hex("node", m_node).number("connection", connection), connection);
    if (m_has_new_route)
        tap.publish(tap_event{"node_moved"}
                        .hex("node", m_node)
                        .number("connection", connection)
                        .number("from", m_last_connection),
                    connection);
    if (m_has_new_parent)
        tap.publish(
            tap_event{"node_parent"}.hex("node", m_node).hex("parent", m_parent).hex("from", m_last_parent),
            connection);
}

} // namespace rtls
