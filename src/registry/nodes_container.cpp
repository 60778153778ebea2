#include "registry/nodes_container.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "registry/address_index.h"
#include "registry/node_table.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace rtls {

namespace {

// The mutex stays first: the handle may be used as the mutex itself.
struct NODES_CONTAINER_t {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    node_table nodes;
    address_index by_address;

    ~NODES_CONTAINER_t() { pthread_mutex_destroy(&mutex); }
};

// The first byte of every node's MAC; an address's interface identifier has another one there.
constexpr uint8_t first_mac_byte = 0xE4;
constexpr size_t interface_identifier = 8; // offset in an address

// The container, or nullptr after a log line for `function` when it or another argument is null.
NODES_CONTAINER_t* checked(void* p_nodes, const char* function, bool arguments_are_there = true)
{
    if (p_nodes && arguments_are_there)
        return static_cast<NODES_CONTAINER_t*>(p_nodes);
    logger_error(g_logger, str_null_pointer, function);
    return nullptr;
}

// Adds a node that is all zeros but its MAC; nullptr when memory is short or the container full.
NODE_t* create_node(NODES_CONTAINER_t& container, const uint8_t* mac)
{
    if (container.nodes.size() >= nodes_container_limit)
        return nullptr;
    auto* node = static_cast<stored_node*>(calloc(1, sizeof(stored_node)));
    if (!node)
        return nullptr;
    memcpy(node->mac_addr, mac, mac_size);
    if (!container.nodes.insert(node)) {
        free(node);
        return nullptr;
    }
    container.by_address.add(node);
    return node;
}

} // namespace

void* nodes_container_new(void)
{
    try {
        return new NODES_CONTAINER_t;
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
}

void nodes_container_destroy(void** pp_nodes)
{
    if (any_null(__func__, pp_nodes))
        return;
    delete static_cast<NODES_CONTAINER_t*>(*pp_nodes);
    *pp_nodes = nullptr;
}

void nodes_container_lock(void* p_nodes)
{
    if (auto* container = checked(p_nodes, __func__))
        pthread_mutex_lock(&container->mutex);
}

void nodes_container_unlock(void* p_nodes)
{
    if (auto* container = checked(p_nodes, __func__))
        pthread_mutex_unlock(&container->mutex);
}

size_t nodes_container_get_size(void* p_nodes)
{
    const auto* container = checked(p_nodes, __func__);
    return container ? container->nodes.size() : 0;
}

NODE_t* nodes_container_get_first(void* p_nodes)
{
    auto* container = checked(p_nodes, __func__);
    return container ? container->nodes.first() : nullptr;
}

NODE_t* nodes_container_get_next(void* p_nodes)
{
    auto* container = checked(p_nodes, __func__);
    return container ? container->nodes.next() : nullptr;
}

NODE_t* nodes_container_find_by_mac(void* p_nodes, const uint8_t* mac)
{
    auto* container = checked(p_nodes, __func__, mac != nullptr);
    return container ? container->nodes.find(mac) : nullptr;
}

NODE_t* nodes_container_find_or_create_by_mac(void* p_nodes, const uint8_t* mac,
                                              const uint8_t* sequence_number, uint16_t /*cmd*/)
{
    auto* container = checked(p_nodes, __func__, mac != nullptr);
    if (!container)
        return nullptr;
    NODE_t* node = container->nodes.find(mac);
    if (!node) {
        node = create_node(*container, mac);
        if (!node)
            logger_error(g_logger, str_out_of_memory, __func__);
        return node;
    }
    if (sequence_number) {
        if (node->sequence_number == *sequence_number)
            return nullptr;
        node->sequence_number = *sequence_number;
    }
    return node;
}

NODE_t* nodes_container_find_by_short_mac(void* p_nodes, uint8_t short_mac_hi, uint8_t short_mac_lo)
{
    const auto* container = checked(p_nodes, __func__);
    if (!container)
        return nullptr;
    return container->nodes.find_first([=](const NODE_t& node) {
        return node.mac_addr[6] == short_mac_hi && node.mac_addr[7] == short_mac_lo;
    });
}

NODE_t* nodes_container_find_by_ip(void* p_nodes, const uint8_t* ip_addr)
{
    auto* container = checked(p_nodes, __func__, ip_addr != nullptr);
    if (!container)
        return nullptr;
    auto node = container->by_address.only_with(ip_addr);
    if (!node)
        node = container->nodes.find_first([=](const NODE_t& candidate) {
            return !candidate.forwarded_ip && memcmp(candidate.ip_addr, ip_addr, ip_addr_size) == 0;
        });
    if (*node)
        return *node;
    uint8_t mac[mac_size];
    memcpy(mac, ip_addr + interface_identifier, mac_size);
    mac[0] = first_mac_byte;
    return container->nodes.find(mac);
}

void nodes_container_set_address(void* p_nodes, NODE_t* node, const uint8_t* ip_addr, bool forwarded_ip)
{
    auto* container = checked(p_nodes, __func__, node && ip_addr);
    if (!container)
        return;
    if (node->forwarded_ip == forwarded_ip && memcmp(node->ip_addr, ip_addr, ip_addr_size) == 0)
        return;
    auto* stored = static_cast<stored_node*>(node);
    container->by_address.remove(stored);
    memmove(node->ip_addr, ip_addr, ip_addr_size); // it may be the node's own
    node->forwarded_ip = forwarded_ip;
    container->by_address.add(stored);
}

void nodes_container_update_lifetime(void* p_nodes)
{
    auto* container = checked(p_nodes, __func__);
    if (!container)
        return;
    const nodes_guard guard{p_nodes};
    container->nodes.for_each([](NODE_t& node) {
        if (node.lifetime != 0)
            --node.lifetime;
    });
}

void nodes_container_delete(void* p_nodes, const uint8_t* mac)
{
    auto* container = checked(p_nodes, __func__, mac != nullptr);
    if (!container)
        return;
    stored_node* node = container->nodes.remove(mac);
    if (!node)
        return;
    container->by_address.remove(node);
    void* p_node = static_cast<NODE_t*>(node);
    node_destroy(&p_node);
}

} // namespace rtls
