// node_news - what a message tells of its sender that the registry did not know: that there is such a node, that
// another connection hears it, that it has another parent. For the tap's subscribers.
//
// Ownership  Copies.
// Threads    WIN server thread: gathered under the registry's lock, published behind it.
// Blocking   Nothing waits.
// Failures   Nothing throws.
#pragma once

#include "base/bytes.h"
#include "registry/node.h"
#include "tap/tap_socket.h"

#include <array>
#include <cstdint>

namespace rtls {

class node_news {
public:
    // Not cleared: each message has two of them, and hardly ever somebody to tell.
    node_news() noexcept {} // NOLINT(modernize-use-equals-default,cppcoreguidelines-pro-type-member-init)

    // The message's sender as it was before; the identity of the connection that is about to be its route, or none if
    // the route stays as it is.
    void note_sender(const NODE_t& node, bytes_view connection) noexcept;
    // Behind the above: the same node is about to get this parent.
    void note_parent(const NODE_t& node, bytes_view parent) noexcept;

    // Behind the lock, if it has been noted. What is no news is not published.
    void publish(tap_socket& tap, uint32_t connection) const noexcept;

private:
    using mac = std::array<uint8_t, mac_size>;

    // Which news it is, as soon as a sender is noted; any of them, or none.
    bool m_is_new;         // node_new
    bool m_has_new_route;  // node_moved
    bool m_has_new_parent; // node_parent
    mac m_node;
    uint32_t m_last_connection; // of node_moved
    mac m_last_parent;          // of node_parent, like the next
    mac m_parent;
};

} // namespace rtls
