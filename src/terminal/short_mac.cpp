#include "terminal/short_mac.h"

#include "base/logger.h"
#include "services.h"

#include <cstddef>
#include <cstring>
#include <thread>

namespace rtls {

static constexpr size_t nodes_of_slice = 4096;

namespace {

struct short_mac_bytes {
    explicit short_mac_bytes(uint16_t value)
        : high(static_cast<uint8_t>(value >> 8)), low(static_cast<uint8_t>(value))
    {
    }
    bool are_of(const NODE_t& node) const
    {
        return node.mac_addr[mac_size - 2] == high && node.mac_addr[mac_size - 1] == low;
    }
    uint8_t high;
    uint8_t low;
};

} // namespace

static node_table::part_walk begin_walk(NODES_CONTAINER_t& nodes)
{
    const nodes_guard guard{nodes};
    return nodes.begin_walk();
}

// Looks at the next nodes. The walk is done when the node has been found, and when there is none.
static void look_on(NODES_CONTAINER_t& nodes, short_mac_bytes bytes, node_table::part_walk& walk,
                    std::optional<mac_array>& found)
{
    const nodes_guard guard{nodes};
    if (!nodes.has_short_mac(bytes.high, bytes.low)) {
        walk.is_done = true;
        return;
    }
    const bool goes_on = nodes.visit_part(walk, nodes_of_slice, [&](const NODE_t& node) {
        if (!found && bytes.are_of(node))
            std::memcpy(found.emplace().data(), node.mac_addr, mac_size);
    });
    if (!goes_on)
        walk = nodes.begin_walk(); // the table has been rebuilt
    walk.is_done = walk.is_done || found;
}

static std::optional<mac_array> find_mac(NODES_CONTAINER_t& nodes, uint16_t short_mac)
{
    const short_mac_bytes bytes{short_mac};
    std::optional<mac_array> found;
    for (node_table::part_walk walk = begin_walk(nodes); !walk.is_done;) {
        look_on(nodes, bytes, walk, found);
        if (!walk.is_done)
            std::this_thread::sleep_for(turn_of_others);
    }
    return found;
}

std::optional<mac_array> find_mac_by_short(NODES_CONTAINER_t* nodes, uint16_t short_mac)
{
    if (!nodes) {
        logger_error(g_logger, str_null_nodes_container, __func__);
        return std::nullopt;
    }
    return find_mac(*nodes, short_mac);
}

std::optional<mac_array> delete_node_by_short_mac(NODES_CONTAINER_t* nodes, uint16_t short_mac)
{
    if (!nodes) {
        logger_error(g_logger, str_null_nodes_container, __func__);
        return std::nullopt;
    }
    const auto mac = find_mac(*nodes, short_mac);
    if (!mac)
        return std::nullopt;
    const nodes_guard guard{*nodes};
    nodes->remove(mac->data());
    return mac;
}

} // namespace rtls
