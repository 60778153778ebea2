// node_table - the nodes by MAC, kept in the very order in which a CZMQ zhashx would keep them.
//
// Operators see that order in the listings, and it decides which of several nodes with one short MAC
// is meant. A zhashx itself would not do: whenever a look-up meets a chain that is too long it doubles
// its buckets, however often. Its hash, too, is part of the order, and thirty MACs that share their
// hash (peers can make them up, and a large consecutive range contains them) make it ask for gigabytes
// and abort the process. Here long chains stop making the table grow at a bound, no look-up walks
// further along a chain than the table's limit for chains, and a second index knows what lies beyond.
//
// Ownership  The table owns its nodes.
// Threads    None of its own; the nodes container locks around it.
// Failures   Only the constructor throws (std::bad_alloc). Where memory is short later, a node is not
//            inserted, or the table does not grow.
#pragma once

#include "registry/node.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <unordered_map>

namespace rtls {

// A node with the numbers that its order depends on. They lie where NODE_t ends in padding.
struct numbered_node : NODE_t {
    uint64_t tree_growth : 8 = 0; // of a tree's root: the growth of the table for which the tree is sorted
    uint64_t pushed : 48 = 0;     // the table's count of pushes when it got this node: newer ones come first
};

// A place in one of the lists of the expiry queue.
struct expiry_link {
    expiry_link* previous = nullptr;
    expiry_link* next = nullptr;
};

// A node with its places in the container's structures.
struct stored_node : numbered_node, expiry_link {
    stored_node* next_in_bucket = nullptr;
    stored_node* tree_left = nullptr; // the other nodes with the same address
    stored_node* tree_right = nullptr;
};
// A million of them are kept: 16 bytes more than without the expiry queue.
static_assert(sizeof(stored_node) <= 176);

// Where a node comes in table order.
struct table_place {
    size_t bucket;
    uint64_t pushed;

    bool operator<(const table_place& other) const
    {
        return bucket != other.bucket ? bucket < other.bucket : pushed > other.pushed;
    }
};

// Hashes of bytes that peers choose, seeded at random so that nobody can make them collide.
size_t seeded_hash(uint64_t low, uint64_t high = 0);

// The most nodes one container takes: peers create nodes. Operators remove them, and at the limit the node
// that has been expired for longest makes room for a new one.
constexpr size_t nodes_container_limit = 1'000'000;

class node_table {
public:
    node_table(); // throws std::bad_alloc
    ~node_table();
    node_table(const node_table&) = delete;
    node_table& operator=(const node_table&) = delete;

    size_t size() const { return m_size; }

    // The node with this MAC, or nullptr. May reorder the table, as in a zhashx.
    stored_node* find(const uint8_t* mac) noexcept;

    // The same without any change of the table, for those who only watch.
    stored_node* look_up(const uint8_t* mac) const noexcept;

    // Takes over a node whose MAC is not in the table, and returns it. Null, the node untouched, when memory
    // is short.
    stored_node* insert(std::unique_ptr<stored_node>&& new_node) noexcept;

    // Takes the node with this MAC out; null if there is none.
    std::unique_ptr<stored_node> remove(const uint8_t* mac) noexcept;

    // How often the table has grown. Each growth reorders it: places are comparable between two of them.
    uint8_t growth() const { return static_cast<uint8_t>(m_growth); }

    // The place of a node that is in the table, or was until nothing but its removal happened.
    table_place place_of(const stored_node& node) const { return {bucket_of(node.mac_addr), node.pushed}; }

    // The one cursor, in table order.
    stored_node* first() noexcept;
    stored_node* next() noexcept;

    // The first node in table order for which `accept(node)` holds, or nullptr. Leaves the cursor alone.
    template <typename Predicate>
    stored_node* find_first(Predicate accept) const
    {
        for (size_t i = next_occupied(0); i < m_bucket_count; i = next_occupied(i + 1))
            for (stored_node* node = m_buckets[i]; node; node = node->next_in_bucket)
                if (accept(*node))
                    return node;
        return nullptr;
    }

    // A walk through the table in parts, between which the table may change.
    struct part_walk {
        size_t bucket = 0;
        uint64_t visited = UINT64_MAX; // `pushed` of the last node of that bucket that was visited
        uint64_t last_mac = 0;         // of the node of that bucket that was looked at last, and its `pushed`
        uint64_t last_pushed = 0;      // 0: none yet
        size_t growth = 0;             // of the table, when the walk began
        size_t looks = 0;              // at nodes, so far
        bool is_done = false;
    };
    // Where a walk begins.
    part_walk begin_walk() const { return {.growth = m_growth}; }
    // Looks at the next `most` nodes, in table order, and calls `visit(node)` for those that were not visited
    // yet: all of them, unless the one that was looked at last has gone, and its bucket is gone through anew.
    // Peers can put any number of nodes into one bucket: not even then is more looked at. Who comes or goes
    // between two parts may be visited or not, all others are: once. False when the table has grown since the
    // walk began: it must begin anew. Leaves the cursor alone.
    template <typename Visitor>
    bool visit_part(part_walk& walk, size_t most, Visitor visit) const
    {
        if (walk.growth != m_growth)
            return false;
        for (stored_node* node = next_of(walk); node || to_next_bucket(walk, node); --most) {
            if (most == 0)
                return true;
            if (node->pushed < walk.visited) {
                visit(*node);
                walk.visited = node->pushed;
            }
            node = look_behind(walk, *node);
        }
        walk.is_done = true;
        return true;
    }

    // Calls `visit(node)` for every node, in table order. Leaves the cursor alone.
    template <typename Visitor>
    void for_each(Visitor visit) const
    {
        find_first([&](stored_node& node) {
            visit(node);
            return false;
        });
    }

private:
    struct free_deleter {
        void operator()(void* array) const noexcept { free(array); }
    };
    struct mac_hash {
        size_t operator()(uint64_t mac) const { return seeded_hash(mac); }
    };

    template <typename T>
    using zeroed_array = std::unique_ptr<T[], free_deleter>;
    template <typename T>
    static zeroed_array<T> make_zeroed(size_t count) noexcept;

    void push(stored_node** buckets, uint64_t* occupied, size_t bucket, stored_node* node);
    size_t bucket_of(const uint8_t* mac) const;
    size_t next_occupied(size_t from) const;
    stored_node* next_of(const part_walk& walk) const noexcept;
    bool to_next_bucket(part_walk& walk, stored_node*& node) const noexcept;
    static stored_node* look_behind(part_walk& walk, const stored_node& node) noexcept;
    bool may_spread() const;
    bool grow() noexcept;

    zeroed_array<stored_node*> m_buckets;
    zeroed_array<uint64_t> m_occupied; // a bit a bucket, so that walks skip the empty ones quickly
    size_t m_bucket_count = 0;
    size_t m_growth = 0; // index into the bucket counts
    size_t m_size = 0;
    uint64_t m_pushes = 0; // 48 bits of it last for years of creations at full speed
    unsigned m_chain_limit = 1;
    size_t m_cursor_bucket = 0;
    stored_node* m_cursor = nullptr; // what next() returns, or null: look in the buckets behind
    std::unordered_map<uint64_t, stored_node*, mac_hash> m_by_mac;
};

} // namespace rtls
