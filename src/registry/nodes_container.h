// nodes_container - the nodes heard of so far, keyed by their 8-byte MAC.
//
// Ownership  The container owns its nodes. A NODE_t* is borrowed, and valid only while the lock is held.
// Threads    WIN server and terminal. The container is its own lock: hold a nodes_guard around each call
//            and each whole iteration, except where a function says that it takes the lock itself.
//            clang checks it. Nothing is sent, printed or waited for under the lock.
// Failures   Nothing throws, but making a container. What fails under the lock is logged when it is let go.
#pragma once

#include "base/czmq_ptr.h"
#include "base/prefix_list.h"
#include "base/rate_bound.h"
#include "registry/address_index.h"
#include "registry/expiry_queue.h"
#include "registry/node.h"
#include "registry/node_table.h"

#include "core/thread_annotations.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace rtls {

// Who walks the nodes in parts lets go of the lock for so long in between: a thread that takes a lock again at
// once gets it before those that have been waiting for it.
inline constexpr std::chrono::microseconds turn_of_others{50};

// Why find_or_create_by_mac gave no node.
enum class node_refusal : uint8_t { duplicate, no_room, foreign };

class RTLS_CAPABILITY("registry") NODES_CONTAINER_t {
public:
    // Takes at most `limit` nodes. Throws std::bad_alloc.
    explicit NODES_CONTAINER_t(size_t limit = nodes_container_limit) : m_limit(limit) {}
    ~NODES_CONTAINER_t() = default;
    NODES_CONTAINER_t(const NODES_CONTAINER_t&) = delete;
    NODES_CONTAINER_t& operator=(const NODES_CONTAINER_t&) = delete;

    void lock() RTLS_ACQUIRE();
    // Logs, behind it, what has failed meanwhile.
    void unlock() RTLS_RELEASE();

    size_t size() const RTLS_REQUIRES(this) { return m_nodes.size(); }

    // How many of them have not expired.
    size_t living() const RTLS_REQUIRES(this) { return m_expiry.living(); }

    // The one cursor, in table order. Any other call may reorder the table: never look up while
    // iterating.
    NODE_t* first() RTLS_REQUIRES(this) { return settled(m_nodes.first()); }
    NODE_t* next() RTLS_REQUIRES(this) { return settled(m_nodes.next()); }

    // A walk in parts, with the lock let go of in between; see node_table::visit_part.
    node_table::part_walk begin_walk() const RTLS_REQUIRES(this) { return m_nodes.begin_walk(); }
    template <typename Visitor>
    bool visit_part(node_table::part_walk& walk, size_t most, Visitor visit) RTLS_REQUIRES(this)
    {
        return m_nodes.visit_part(walk, most, [&](stored_node& node) { visit(*settled(&node)); });
    }

    // How often the table has grown, which a look-up may have it do: one that did not leaves nothing for another
    // look-up right behind it to find or to move.
    uint8_t growth() const RTLS_REQUIRES(this) { return m_nodes.growth(); }

    // The node with exactly this MAC, or nullptr.
    NODE_t* find_by_mac(const uint8_t* mac) RTLS_REQUIRES(this) { return settled(m_nodes.find(mac)); }

    // The same for those who only watch: the table keeps its order.
    const NODE_t* look_up(const uint8_t* mac) const RTLS_REQUIRES(this)
    {
        return settled(m_nodes.look_up(mac));
    }

    // The node with this MAC, made if it is new. With a sequence number (may be null), nullptr for a
    // known node that already has it: a duplicate, to be dropped. A new node does not take the number
    // over, so that its second message is the first one compared. nullptr, too, when there is no room for
    // a new one, with a log line for the first such call of an episode (base/rate_bound.h). At the limit
    // a new node destroys the one that has been expired for longest: keep no other node across this call.
    NODE_t* find_or_create_by_mac(const uint8_t* mac, const uint8_t* sequence_number) RTLS_REQUIRES(this);

    // Why the last such call that gave no node did so.
    node_refusal last_refusal() const RTLS_REQUIRES(this) { return m_refusal; }

    // Whether the MAC of any node ends in these two bytes.
    bool has_short_mac(uint8_t short_mac_hi, uint8_t short_mac_lo) const RTLS_REQUIRES(this)
    {
        return m_of_short_mac[size_t{short_mac_hi} << 8 | short_mac_lo] > 0;
    }

    // The first node in table order whose MAC ends in these two bytes, or nullptr. Walks the table if there is
    // one, and nobody else has his turn meanwhile: operators' commands look in parts (terminal/short_mac.h).
    NODE_t* find_by_short_mac(uint8_t short_mac_hi, uint8_t short_mac_lo) RTLS_REQUIRES(this);

    // The first node in table order with this address (16 bytes) that is not marked forwarded_ip; else the
    // node whose MAC the address's interface identifier stands for; else nullptr.
    NODE_t* find_by_ip(const uint8_t* ip_addr) RTLS_REQUIRES(this);

    // From now on only nodes with these MACs are made. Before the container is used by several threads.
    void admit_only(prefix_list macs) { m_admitted = std::move(macs); }

    // Gives the node another address; keeps the look-up by address in step.
    void set_address(NODE_t& node, const uint8_t* ip_addr, bool forwarded_ip) RTLS_REQUIRES(this);

    // Points the node at another WIN client, of which it keeps a copy; at none when memory is short.
    void set_win_client(NODE_t& node, zframe_t* win_client_id) RTLS_REQUIRES(this);

    // Gives the node another lifetime, in seconds.
    void set_lifetime(NODE_t& node, uint16_t lifetime) RTLS_REQUIRES(this);

    // Ages every node by one second. Takes the lock itself.
    void update_lifetime() RTLS_EXCLUDES(this);

    // Copies the MACs of nodes that have expired since the last call of either, in their order, as many as there is
    // room for: the next call has the others. Returns how many. Takes the lock itself.
    size_t take_expired(std::span<mac_array> room) RTLS_EXCLUDES(this);
    // Nobody wants to hear of those that have expired until now. The same.
    void pass_over_expired() RTLS_EXCLUDES(this);

    // Removes and destroys the node with this MAC, if there is one.
    void remove(const uint8_t* mac) RTLS_REQUIRES(this);

    // What has failed since the lock was taken. Taking it out is for those who log it.
    struct failures {
        bool no_room = false; // for a new node; the first of an episode
        std::optional<std::array<uint8_t, mac_size>>
            foreign;                // a new node's MAC that is not admitted; as above
        std::optional<int> no_copy; // of an identity; errno
        bool has_any() const { return no_room || foreign || no_copy; }
        void log() const;
    };
    failures take_failures() RTLS_REQUIRES(this) { return std::exchange(m_failures, {}); }

private:
    NODE_t* settled(stored_node* node) const;
    uint32_t& of_short_mac(const uint8_t* mac) RTLS_REQUIRES(this)
    {
        return m_of_short_mac[size_t{mac[mac_size - 2]} << 8 | mac[mac_size - 1]];
    }
    bool has_room();
    bool is_admitted(const uint8_t* mac) RTLS_REQUIRES(this);
    void make_room() RTLS_REQUIRES(this);
    NODE_t* create(const uint8_t* mac) RTLS_REQUIRES(this);
    void note_no_room() RTLS_REQUIRES(this);

    annotated_mutex m_mutex; // stays first: the handle may be used as the mutex itself
    node_table m_nodes;
    address_index m_by_address{m_nodes};
    expiry_queue m_expiry;
    std::vector<uint32_t> m_of_short_mac =
        std::vector<uint32_t>(size_t{1} << 16); // nodes by their last two bytes
    node_refusal m_refusal = node_refusal::duplicate;
    refusal_episode m_no_room_episode;
    std::optional<prefix_list> m_admitted; // none: every MAC is
    refusal_episode m_foreign_episode;
    failures m_failures;
    const size_t m_limit;
};

// Holds the container's lock for a scope.
class RTLS_SCOPED_CAPABILITY nodes_guard {
public:
    explicit nodes_guard(NODES_CONTAINER_t& nodes) RTLS_ACQUIRE(nodes) : m_nodes(nodes) { m_nodes.lock(); }
    ~nodes_guard() RTLS_RELEASE() { m_nodes.unlock(); }
    nodes_guard(const nodes_guard&) = delete;
    nodes_guard& operator=(const nodes_guard&) = delete;

private:
    NODES_CONTAINER_t& m_nodes;
};

// --- the same by handle, for those outside. The lock is the caller's business. A null argument is logged
// and answered with nullptr, 0 or nothing.

// An empty container, or nullptr. Release it with nodes_container_destroy.
void* nodes_container_new(void);
// Frees the container and its nodes; nulls the handle. Takes a null handle.
void nodes_container_destroy(void** pp_nodes);
using nodes_container_ptr = std::unique_ptr<NODES_CONTAINER_t, destroyed_by<nodes_container_destroy>>;
void nodes_container_lock(void* p_nodes);
void nodes_container_unlock(void* p_nodes);
size_t nodes_container_get_size(void* p_nodes);
NODE_t* nodes_container_get_first(void* p_nodes);
NODE_t* nodes_container_get_next(void* p_nodes);
NODE_t* nodes_container_find_by_mac(void* p_nodes, const uint8_t* mac);
// `cmd` is the message type; not used.
NODE_t* nodes_container_find_or_create_by_mac(void* p_nodes, const uint8_t* mac,
                                              const uint8_t* sequence_number, uint16_t cmd);
NODE_t* nodes_container_find_by_short_mac(void* p_nodes, uint8_t short_mac_hi, uint8_t short_mac_lo);
NODE_t* nodes_container_find_by_ip(void* p_nodes, const uint8_t* ip_addr);
void nodes_container_set_address(void* p_nodes, NODE_t* node, const uint8_t* ip_addr, bool forwarded_ip);
void nodes_container_set_lifetime(void* p_nodes, NODE_t* node, uint16_t lifetime);
// Takes the lock itself: call it without.
void nodes_container_update_lifetime(void* p_nodes);
void nodes_container_delete(void* p_nodes, const uint8_t* mac);

} // namespace rtls
