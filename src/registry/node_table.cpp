#include "registry/node_table.h"

#include <sys/random.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <new>
#include <utility>

namespace rtls {

// The sizes through which a zhashx grows: the fifth largest prime below each power of two from 16 on.
static constexpr size_t bucket_counts[] = {3,      17,     43,      103,     229,    487,   997,
                                           2011,   4057,   8161,    16349,   32707,  65449, 131023,
                                           262111, 524243, 1048517, 2097091, 4194247};
static constexpr size_t max_load_percent = 75;

// Long chains make the table grow up to this many buckets in any case, and beyond it up to so many
// buckets a node. Ordinary MACs need about the 1.5th power of their number.
static constexpr size_t always_allowed_buckets = 65536;
static constexpr size_t allowed_buckets_per_node = 1024;

// The limit on nodes leaves room below the last size: the load alone never meets the end of the list.
static_assert(bucket_counts[std::size(bucket_counts) - 1] * max_load_percent / 100 > nodes_container_limit);

static constexpr size_t bits_per_word = 64;

static constexpr uint64_t pushed_mask = (uint64_t{1} << 48) - 1;

static constexpr size_t words_for(size_t buckets)
{
    return (buckets + bits_per_word - 1) / bits_per_word;
}

static uint64_t make_seed()
{
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed)
        seed = static_cast<uint64_t>(time(nullptr)); // too early after the boot
    return seed;
}

static constexpr uint64_t mixed(uint64_t x)
{
    x = (x ^ x >> 32) * 0xD6E8FEB86659FD93U;
    x = (x ^ x >> 32) * 0xD6E8FEB86659FD93U;
    return x ^ x >> 32;
}

// CZMQ's hash of a text, over the 8 bytes; the seed-free hash that makes the table's order.
static size_t order_hash(const uint8_t* mac)
{
    uint64_t hash = 0;
    for (size_t i = 0; i < mac_size; ++i)
        hash = hash * 33 ^ mac[i];
    return hash;
}

static uint64_t as_number(const uint8_t* mac)
{
    uint64_t number = 0;
    static_assert(sizeof number == mac_size);
    std::memcpy(&number, mac, sizeof number);
    return number;
}

static bool has_mac(const stored_node& node, const uint8_t* mac)
{
    return std::memcmp(node.mac_addr, mac, mac_size) == 0;
}

size_t seeded_hash(uint64_t low, uint64_t high)
{
    static const uint64_t seed = make_seed();
    return mixed(mixed(low ^ seed) ^ high);
}

template <typename T>
node_table::zeroed_array<T> node_table::make_zeroed(size_t count) noexcept
{
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer
    return zeroed_array<T>{static_cast<T*>(calloc(count, sizeof(T)))};
}

node_table::node_table()
    : m_buckets(make_zeroed<stored_node*>(bucket_counts[0])),
      m_occupied(make_zeroed<uint64_t>(words_for(bucket_counts[0]))), m_bucket_count(bucket_counts[0])
{
    if (!m_buckets || !m_occupied)
        throw std::bad_alloc();
}

node_table::~node_table()
{
    for (auto [mac, node] : m_by_mac)
        delete node;
}

void node_table::push(stored_node** buckets, uint64_t* occupied, size_t bucket, stored_node* node)
{
    node->pushed = ++m_pushes & pushed_mask;
    node->next_in_bucket = std::exchange(buckets[bucket], node);
    occupied[bucket / bits_per_word] |= uint64_t{1} << bucket % bits_per_word;
}

size_t node_table::bucket_of(const uint8_t* mac) const
{
    return order_hash(mac) % m_bucket_count;
}

stored_node* node_table::find(const uint8_t* mac) noexcept
{
    if (may_spread()) {
        stored_node* node = m_buckets[bucket_of(mac)];
        unsigned passed = 0;
        while (node && passed <= m_chain_limit && !has_mac(*node, mac)) {
            node = node->next_in_bucket;
            ++passed;
        }
        if (passed <= m_chain_limit)
            return node;
        grow();
    }
    return look_up(mac);
}

stored_node* node_table::look_up(const uint8_t* mac) const noexcept
{
    const auto found = m_by_mac.find(as_number(mac));
    return found == m_by_mac.end() ? nullptr : found->second;
}

stored_node* node_table::insert(std::unique_ptr<stored_node>&& new_node) noexcept
{
    try {
        m_by_mac.emplace(as_number(new_node->mac_addr), new_node.get());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    stored_node* const node = new_node.release();
    if (m_size >= m_bucket_count * max_load_percent / 100 && grow())
        ++m_chain_limit;
    find(node->mac_addr); // its chain may be too long, as in a zhashx, which looks before it inserts
    push(m_buckets.get(), m_occupied.get(), bucket_of(node->mac_addr), node);
    ++m_size;
    return node;
}

std::unique_ptr<stored_node> node_table::remove(const uint8_t* mac) noexcept
{
    stored_node* node = find(mac);
    if (!node)
        return nullptr;
    const size_t bucket = bucket_of(mac);
    stored_node** link = &m_buckets[bucket];
    while (*link != node)
        link = &(*link)->next_in_bucket;
    *link = std::exchange(node->next_in_bucket, nullptr);
    if (!m_buckets[bucket])
        m_occupied[bucket / bits_per_word] &= ~(uint64_t{1} << bucket % bits_per_word);
    m_by_mac.erase(as_number(mac));
    --m_size;
    m_cursor = nullptr;
    return std::unique_ptr<stored_node>{node};
}

// The first bucket from `from` on that holds a node; the number of buckets if there is none.
size_t node_table::next_occupied(size_t from) const
{
    uint64_t from_here = ~uint64_t{0} << from % bits_per_word;
    for (size_t word = from / bits_per_word; word < words_for(m_bucket_count); ++word) {
        if (const uint64_t bits = m_occupied[word] & from_here)
            return word * bits_per_word + static_cast<size_t>(std::countr_zero(bits));
        from_here = ~uint64_t{0};
    }
    return m_bucket_count;
}

// The node of the walk's bucket that comes behind the one that was looked at last; null behind the last one.
stored_node* node_table::next_of(const part_walk& walk) const noexcept
{
    if (walk.last_pushed != 0) {
        const auto last = m_by_mac.find(walk.last_mac);
        if (last != m_by_mac.end() && last->second->pushed == walk.last_pushed)
            return last->second->next_in_bucket;
    }
    return walk.bucket < m_bucket_count ? m_buckets[walk.bucket] : nullptr;
}

// False, with the walk behind the last bucket, when there is no other one.
bool node_table::to_next_bucket(part_walk& walk, stored_node*& node) const noexcept
{
    walk.bucket = next_occupied(walk.bucket + 1);
    walk.visited = UINT64_MAX;
    walk.last_pushed = 0;
    if (walk.bucket >= m_bucket_count)
        return false;
    node = m_buckets[walk.bucket];
    return true;
}

stored_node* node_table::look_behind(part_walk& walk, const stored_node& node) noexcept
{
    walk.last_mac = as_number(node.mac_addr);
    walk.last_pushed = node.pushed;
    ++walk.looks;
    return node.next_in_bucket;
}

stored_node* node_table::first() noexcept
{
    m_cursor_bucket = 0;
    m_cursor = m_buckets[0];
    return next();
}

stored_node* node_table::next() noexcept
{
    if (!m_cursor) {
        m_cursor_bucket = next_occupied(m_cursor_bucket + 1);
        if (m_cursor_bucket >= m_bucket_count)
            return nullptr;
        m_cursor = m_buckets[m_cursor_bucket];
    }
    return std::exchange(m_cursor, m_cursor->next_in_bucket);
}

// Whether a long chain may still make the table grow.
bool node_table::may_spread() const
{
    if (m_growth + 1 == std::size(bucket_counts))
        return false;
    const size_t grown = bucket_counts[m_growth + 1];
    return grown <= always_allowed_buckets || grown <= m_size * allowed_buckets_per_node;
}

// Moves the nodes, bucket by bucket and each to the head of its new one, to about twice the buckets.
// False, with nothing changed, when memory is short.
bool node_table::grow() noexcept
{
    if (m_growth + 1 == std::size(bucket_counts))
        return false;
    const size_t grown = bucket_counts[m_growth + 1];
    auto buckets = make_zeroed<stored_node*>(grown);
    auto occupied = make_zeroed<uint64_t>(words_for(grown));
    if (!buckets || !occupied)
        return false;
    for (size_t i = next_occupied(0); i < m_bucket_count; i = next_occupied(i + 1))
        for (stored_node* node = m_buckets[i]; node;) {
            stored_node* const following = node->next_in_bucket;
            push(buckets.get(), occupied.get(), order_hash(node->mac_addr) % grown, node);
            node = following;
        }
    m_buckets = std::move(buckets);
    m_occupied = std::move(occupied);
    m_bucket_count = grown;
    ++m_growth;
    return true;
}

} // namespace rtls
