// registry_fixture - a container of nodes, driven by its handle, and numbered nodes and addresses for it.
//
// Threads    The test's own, unless it starts others; the lock is the test's business.
#pragma once

#include "registry/nodes_container.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

namespace rtls {

using ip_bytes = std::array<uint8_t, ip_addr_size>;

inline mac_array mac_of(uint64_t number)
{
    mac_array mac;
    for (size_t i = 0; i < mac_size; ++i)
        mac[i] = static_cast<uint8_t>(number >> (56 - 8 * i));
    return mac;
}

inline mac_array mac_of(const NODE_t& node)
{
    mac_array mac;
    std::memcpy(mac.data(), node.mac_addr, mac_size);
    return mac;
}

// An address whose interface identifier stands for no node unless a test makes it so.
inline ip_bytes ip_of(uint8_t last)
{
    return {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0xE6, 1, 2, 3, 4, 5, 6, last};
}

class registry_fixture : public testing::Test {
protected:
    registry_fixture() = default;
    ~registry_fixture() override { nodes_container_destroy(&nodes); }
    registry_fixture(const registry_fixture&) = delete;
    registry_fixture& operator=(const registry_fixture&) = delete;

    // The container, for those who lock it by a guard.
    NODES_CONTAINER_t& container() const { return *static_cast<NODES_CONTAINER_t*>(nodes); }

    NODE_t* create(const mac_array& mac)
    {
        return nodes_container_find_or_create_by_mac(nodes, mac.data(), nullptr, 0x0104);
    }
    NODE_t* find(const mac_array& mac) { return nodes_container_find_by_mac(nodes, mac.data()); }
    NODE_t* find_ip(const ip_bytes& ip) { return nodes_container_find_by_ip(nodes, ip.data()); }
    void set_address(NODE_t* node, const ip_bytes& ip, bool forwarded = false)
    {
        nodes_container_set_address(nodes, node, ip.data(), forwarded);
    }
    void set_lifetime(NODE_t* node, uint16_t lifetime)
    {
        nodes_container_set_lifetime(nodes, node, lifetime);
    }
    void age(int ticks)
    {
        for (int i = 0; i < ticks; ++i)
            nodes_container_update_lifetime(nodes);
    }
    // Starts anew with a container that takes no more nodes than this.
    void limit_to(size_t limit)
    {
        nodes_container_destroy(&nodes);
        nodes = new NODES_CONTAINER_t(limit);
    }
    std::vector<mac_array> in_order()
    {
        std::vector<mac_array> macs;
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            macs.push_back(mac_of(*node));
        return macs;
    }

    void* nodes = nodes_container_new();
};

} // namespace rtls
