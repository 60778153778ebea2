#include "terminal/short_mac.h"

#include "base/logger.h"
#include "services.h"

#include <cstring>

namespace rtls {

static std::optional<mac_array> find_mac_locked(NODES_CONTAINER_t& nodes, uint16_t short_mac)
    RTLS_REQUIRES(nodes);

static std::optional<mac_array> find_mac_locked(NODES_CONTAINER_t& nodes, uint16_t short_mac)
{
    const NODE_t* node =
        nodes.find_by_short_mac(static_cast<uint8_t>(short_mac >> 8), static_cast<uint8_t>(short_mac));
    if (!node)
        return std::nullopt;
    mac_array mac;
    std::memcpy(mac.data(), node->mac_addr, mac.size());
    return mac;
}

std::optional<mac_array> find_mac_by_short(NODES_CONTAINER_t* nodes, uint16_t short_mac)
{
    if (!nodes) {
        logger_error(g_logger, str_null_nodes_container, __func__);
        return std::nullopt;
    }
    const nodes_guard guard{*nodes};
    return find_mac_locked(*nodes, short_mac);
}

bool delete_node_by_short_mac(NODES_CONTAINER_t* nodes, uint16_t short_mac)
{
    if (!nodes) {
        logger_error(g_logger, str_null_nodes_container, __func__);
        return false;
    }
    const nodes_guard guard{*nodes};
    const auto mac = find_mac_locked(*nodes, short_mac);
    if (mac)
        nodes->remove(mac->data());
    return mac.has_value();
}

} // namespace rtls
