#include "registry/nodes_container.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace rtls {

// The first byte of every node's MAC; an address's interface identifier has another one there.
static constexpr uint8_t first_mac_byte = 0xE4;
static constexpr size_t interface_identifier = 8; // offset in an address

void NODES_CONTAINER_t::lock()
{
    m_mutex.lock();
}

void NODES_CONTAINER_t::unlock()
{
    if (!m_failures.has_any())
        return m_mutex.unlock();
    const failures failed = take_failures();
    m_mutex.unlock();
    failed.log();
}

// Both lines name the function by which those outside know the step.
void NODES_CONTAINER_t::failures::log() const
{
    if (no_room)
        logger_error(g_logger, str_out_of_memory, "nodes_container_find_or_create_by_mac");
    if (foreign)
        logger_warning(g_logger, "nodes: %s is not among the MACs that may register",
                       colon_mac_text{foreign->data()}.c_str());
    if (!no_copy)
        return;
    errno = *no_copy;
    log_call_error("node_update_win_client_ID", "zframe_dup");
}

// The node, which may be null, with its lifetime up to date: what is handed out is read and written.
NODE_t* NODES_CONTAINER_t::settled(stored_node* node) const
{
    if (node)
        m_expiry.settle(*node);
    return node;
}

bool NODES_CONTAINER_t::has_room()
{
    return m_nodes.size() < m_limit || m_expiry.longest_expired();
}

// Removes the node that has been expired for longest, if the container is full.
void NODES_CONTAINER_t::make_room()
{
    if (m_nodes.size() < m_limit)
        return;
    if (const stored_node* expired = m_expiry.longest_expired())
        remove(expired->mac_addr);
}

// Adds a node that is all zeros but its MAC; nullptr when memory is short, or the container full of nodes
// that live.
NODE_t* NODES_CONTAINER_t::create(const uint8_t* mac)
{
    if (!has_room())
        return nullptr;
    std::unique_ptr<stored_node> new_node{new (std::nothrow) stored_node};
    if (!new_node)
        return nullptr;
    std::memcpy(new_node->mac_addr, mac, mac_size);
    make_room();
    stored_node* node = m_nodes.insert(std::move(new_node));
    if (!node)
        return nullptr;
    m_by_address.add(node);
    m_expiry.add(*node);
    ++of_short_mac(node->mac_addr);
    return node;
}

bool NODES_CONTAINER_t::is_admitted(const uint8_t* mac)
{
    if (!m_admitted || m_admitted->contains(bytes_view{mac, mac_size}))
        return true;
    if (m_foreign_episode.begins(zclock_mono())) {
        m_failures.foreign.emplace();
        std::memcpy(m_failures.foreign->data(), mac, mac_size);
    }
    return false;
}

// Peers can bring about any number of refusals, also with nodes that find room in between.
void NODES_CONTAINER_t::note_no_room()
{
    m_refusal = node_refusal::no_room;
    if (m_no_room_episode.begins(zclock_mono()))
        m_failures.no_room = true;
}

NODE_t* NODES_CONTAINER_t::find_or_create_by_mac(const uint8_t* mac, const uint8_t* sequence_number)
{
    NODE_t* node = find_by_mac(mac);
    if (!node) {
        if (!is_admitted(mac)) {
            m_refusal = node_refusal::foreign;
            return nullptr;
        }
        node = create(mac);
        if (!node)
            note_no_room();
        return node;
    }
    if (sequence_number) {
        if (node->sequence_number == *sequence_number) {
            m_refusal = node_refusal::duplicate;
            return nullptr;
        }
        node->sequence_number = *sequence_number;
    }
    return node;
}

NODE_t* NODES_CONTAINER_t::find_by_short_mac(uint8_t short_mac_hi, uint8_t short_mac_lo)
{
    if (!has_short_mac(short_mac_hi, short_mac_lo))
        return nullptr;
    return settled(m_nodes.find_first([=](const NODE_t& node) {
        return node.mac_addr[6] == short_mac_hi && node.mac_addr[7] == short_mac_lo;
    }));
}

NODE_t* NODES_CONTAINER_t::find_by_ip(const uint8_t* ip_addr)
{
    auto node = m_by_address.first_with(ip_addr);
    if (!node)
        node = m_nodes.find_first([=](const NODE_t& candidate) {
            return !candidate.forwarded_ip && std::memcmp(candidate.ip_addr, ip_addr, ip_addr_size) == 0;
        });
    if (*node)
        return settled(*node);
    uint8_t mac[mac_size];
    std::memcpy(mac, ip_addr + interface_identifier, mac_size);
    mac[0] = first_mac_byte;
    return find_by_mac(mac);
}

void NODES_CONTAINER_t::set_address(NODE_t& node, const uint8_t* ip_addr, bool forwarded_ip)
{
    if (node.forwarded_ip == forwarded_ip && std::memcmp(node.ip_addr, ip_addr, ip_addr_size) == 0)
        return;
    auto& stored = static_cast<stored_node&>(node);
    m_by_address.remove(&stored);
    std::memmove(node.ip_addr, ip_addr, ip_addr_size); // it may be the node's own
    node.forwarded_ip = forwarded_ip;
    m_by_address.add(&stored);
}

void NODES_CONTAINER_t::set_win_client(NODE_t& node, zframe_t* win_client_id)
{
    if (!node_set_win_client(node, win_client_id))
        m_failures.no_copy = errno;
}

void NODES_CONTAINER_t::set_lifetime(NODE_t& node, uint16_t lifetime)
{
    m_expiry.set_lifetime(static_cast<stored_node&>(node), lifetime);
}

void NODES_CONTAINER_t::update_lifetime()
{
    const nodes_guard guard{*this};
    m_expiry.tick();
}

size_t NODES_CONTAINER_t::take_expired(std::span<mac_array> room)
{
    const nodes_guard guard{*this};
    size_t taken = 0;
    while (taken < room.size()) {
        const stored_node* node = m_expiry.next_newly_expired();
        if (!node)
            break;
        std::ranges::copy(node->mac_addr, room[taken++].begin());
    }
    return taken;
}

void NODES_CONTAINER_t::pass_over_expired()
{
    const nodes_guard guard{*this};
    m_expiry.pass_over_expired();
}

void NODES_CONTAINER_t::remove(const uint8_t* mac)
{
    const auto node = m_nodes.remove(mac);
    if (!node)
        return;
    m_by_address.remove(node.get());
    m_expiry.remove(*node);
    --of_short_mac(node->mac_addr);
}

// --- by handle

// The container behind the handle, which is there.
static NODES_CONTAINER_t& container_of(void* p_nodes)
{
    return *static_cast<NODES_CONTAINER_t*>(p_nodes);
}

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

RTLS_NO_THREAD_SAFETY_ANALYSIS void nodes_container_lock(void* p_nodes)
{
    if (!any_null(__func__, p_nodes))
        container_of(p_nodes).lock();
}

RTLS_NO_THREAD_SAFETY_ANALYSIS void nodes_container_unlock(void* p_nodes)
{
    if (!any_null(__func__, p_nodes))
        container_of(p_nodes).unlock();
}

RTLS_NO_THREAD_SAFETY_ANALYSIS size_t nodes_container_get_size(void* p_nodes)
{
    return any_null(__func__, p_nodes) ? 0 : container_of(p_nodes).size();
}

RTLS_NO_THREAD_SAFETY_ANALYSIS NODE_t* nodes_container_get_first(void* p_nodes)
{
    return any_null(__func__, p_nodes) ? nullptr : container_of(p_nodes).first();
}

RTLS_NO_THREAD_SAFETY_ANALYSIS NODE_t* nodes_container_get_next(void* p_nodes)
{
    return any_null(__func__, p_nodes) ? nullptr : container_of(p_nodes).next();
}

RTLS_NO_THREAD_SAFETY_ANALYSIS NODE_t* nodes_container_find_by_mac(void* p_nodes, const uint8_t* mac)
{
    return any_null(__func__, p_nodes, mac) ? nullptr : container_of(p_nodes).find_by_mac(mac);
}

RTLS_NO_THREAD_SAFETY_ANALYSIS NODE_t* nodes_container_find_or_create_by_mac(void* p_nodes,
                                                                             const uint8_t* mac,
                                                                             const uint8_t* sequence_number,
                                                                             uint16_t /*cmd*/)
{
    if (any_null(__func__, p_nodes, mac))
        return nullptr;
    NODE_t* node = container_of(p_nodes).find_or_create_by_mac(mac, sequence_number);
    container_of(p_nodes).take_failures().log(); // by handle, the lock may be none of ours
    return node;
}

RTLS_NO_THREAD_SAFETY_ANALYSIS NODE_t* nodes_container_find_by_short_mac(void* p_nodes, uint8_t short_mac_hi,
                                                                         uint8_t short_mac_lo)
{
    return any_null(__func__, p_nodes) ? nullptr
                                       : container_of(p_nodes).find_by_short_mac(short_mac_hi, short_mac_lo);
}

RTLS_NO_THREAD_SAFETY_ANALYSIS NODE_t* nodes_container_find_by_ip(void* p_nodes, const uint8_t* ip_addr)
{
    return any_null(__func__, p_nodes, ip_addr) ? nullptr : container_of(p_nodes).find_by_ip(ip_addr);
}

RTLS_NO_THREAD_SAFETY_ANALYSIS void nodes_container_set_address(void* p_nodes, NODE_t* node,
                                                                const uint8_t* ip_addr, bool forwarded_ip)
{
    if (!any_null(__func__, p_nodes, node, ip_addr))
        container_of(p_nodes).set_address(*node, ip_addr, forwarded_ip);
}

RTLS_NO_THREAD_SAFETY_ANALYSIS void nodes_container_set_lifetime(void* p_nodes, NODE_t* node,
                                                                 uint16_t lifetime)
{
    if (!any_null(__func__, p_nodes, node))
        container_of(p_nodes).set_lifetime(*node, lifetime);
}

void nodes_container_update_lifetime(void* p_nodes)
{
    if (!any_null(__func__, p_nodes))
        container_of(p_nodes).update_lifetime();
}

RTLS_NO_THREAD_SAFETY_ANALYSIS void nodes_container_delete(void* p_nodes, const uint8_t* mac)
{
    if (!any_null(__func__, p_nodes, mac))
        container_of(p_nodes).remove(mac);
}

} // namespace rtls
