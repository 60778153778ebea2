// The order of the table, its bounds, and what happens when memory is short.
#include "registry/node_table.h"

#include "base/czmq_ptr.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/registry_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <vector>

namespace rtls {

using testing::ElementsAre;

namespace {

uint64_t order_hash(const mac_array& mac)
{
    uint64_t hash = 0;
    for (const uint8_t b : mac)
        hash = hash * 33 ^ b;
    return hash;
}

// A zhashx as the order is defined by: keyed by MAC, holding copies.
class reference_table {
public:
    reference_table()
    {
        zhashx_set_key_hasher(m_table.get(), [](const void* key) -> size_t {
            mac_array mac;
            std::memcpy(mac.data(), key, mac_size);
            return order_hash(mac);
        });
        zhashx_set_key_comparator(m_table.get(),
                                  [](const void* a, const void* b) { return std::memcmp(a, b, mac_size); });
        zhashx_set_key_duplicator(m_table.get(), nullptr);
        zhashx_set_key_destructor(m_table.get(), nullptr);
        zhashx_set_destructor(m_table.get(), [](void** p_item) {
            free(*p_item);
            *p_item = nullptr;
        });
    }

    bool find(const mac_array& mac) { return zhashx_lookup(m_table.get(), mac.data()) != nullptr; }
    void find_or_create(const mac_array& mac)
    {
        if (find(mac))
            return;
        void* item = malloc(mac_size);
        std::memcpy(item, mac.data(), mac_size);
        zhashx_insert(m_table.get(), item, item);
    }
    void remove(const mac_array& mac) { zhashx_delete(m_table.get(), mac.data()); }
    std::vector<mac_array> in_order()
    {
        std::vector<mac_array> macs;
        for (void* item = zhashx_first(m_table.get()); item; item = zhashx_next(m_table.get()))
            std::memcpy(macs.emplace_back().data(), item, mac_size);
        return macs;
    }

private:
    zhashx_ptr m_table{zhashx_new()};
};

using container_order = registry_fixture;

// All the MACs with this beginning that share the hash which most of them have.
std::vector<mac_array> colliding_macs()
{
    constexpr uint64_t beginning = 0xE400000000000000;
    std::vector<unsigned> counts(1U << 19);
    const uint64_t base = order_hash(mac_of(beginning));
    const auto slot = [&](uint64_t last) {
        return (order_hash(mac_of(beginning + last)) - base) & (counts.size() - 1);
    };
    for (uint64_t last = 0; last < 1U << 20; ++last)
        ++counts[slot(last)];
    const auto most = std::max_element(counts.begin(), counts.end()) - counts.begin();
    std::vector<mac_array> macs;
    for (uint64_t last = 0; last < 1U << 20; ++last)
        if (slot(last) == static_cast<size_t>(most))
            macs.push_back(mac_of(beginning + last));
    return macs;
}

} // namespace

TEST_F(container_order, is_that_of_a_zhashx_after_any_operations)
{
    for (unsigned seed = 0; seed < 12; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        std::vector<mac_array> macs(size_t{8} << seed);
        for (auto& mac : macs)
            mac = mac_of(random());
        reference_table reference;
        for (int i = 0; i < 15'000; ++i) {
            const mac_array& mac = macs[random() % macs.size()];
            switch (random() % 8) {
            case 0:
            case 1:
            case 2:
                create(mac);
                reference.find_or_create(mac);
                break;
            case 3:
                if (random() % 4 != 0)
                    break;
                nodes_container_delete(nodes, mac.data());
                reference.remove(mac);
                break;
            default:
                ASSERT_EQ(find(mac) != nullptr, reference.find(mac)) << i;
            }
            if (i < 300 || i % 500 == 0) {
                ASSERT_EQ(in_order(), reference.in_order()) << i;
            }
        }
        nodes_container_destroy(&nodes);
        nodes = nodes_container_new();
    }
}

TEST_F(container_order, is_that_of_a_zhashx_for_consecutive_macs)
{
    reference_table reference;
    for (uint64_t i = 0; i < 10'000; ++i) {
        create(mac_of(0xE411223344550000 + i));
        reference.find_or_create(mac_of(0xE411223344550000 + i));
        if (i < 200 || i % 500 == 0) {
            ASSERT_EQ(in_order(), reference.in_order()) << i;
        }
    }
}

// A zhashx would double its buckets at nearly each of these calls until the process is aborted.
TEST_F(container_order, macs_that_share_their_hash_do_no_harm)
{
    const auto macs = colliding_macs();
    ASSERT_GE(macs.size(), 48U);
    for (int round = 0; round < 20; ++round)
        for (const auto& mac : macs)
            ASSERT_NE(create(mac), nullptr);
    EXPECT_EQ(nodes_container_get_size(nodes), macs.size());
    for (const auto& mac : macs)
        EXPECT_EQ(std::memcmp(find(mac)->mac_addr, mac.data(), mac_size), 0);
    auto listed = in_order();
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, macs);
    for (size_t i = 0; i < macs.size(); i += 2)
        nodes_container_delete(nodes, macs[i].data());
    for (size_t i = 0; i < macs.size(); ++i)
        EXPECT_EQ(find(macs[i]) != nullptr, i % 2 == 1);
}

// A hundred thousand consecutive MACs are enough to make a zhashx abort the process.
TEST_F(container_order, a_large_consecutive_range_does_no_harm)
{
    constexpr size_t count = 150'000;
    for (uint64_t i = 0; i < count; ++i)
        ASSERT_NE(create(mac_of(0xE411223344000000 + i)), nullptr);
    const auto listed = in_order();
    EXPECT_EQ(std::set<mac_array>(listed.begin(), listed.end()).size(), count);
    for (uint64_t i = 0; i < count; ++i)
        ASSERT_NE(find(mac_of(0xE411223344000000 + i)), nullptr);
    EXPECT_EQ(find(mac_of(0xE411223344000000 + count)), nullptr);
}

TEST_F(container_order, the_cursor_survives_a_deletion)
{
    for (uint64_t i = 0; i < 100; ++i)
        create(mac_of(i));
    size_t visited = 0;
    for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes)) {
        nodes_container_delete(nodes, node->mac_addr);
        ++visited;
    }
    EXPECT_EQ(nodes_container_get_size(nodes), 100 - visited);
    EXPECT_EQ(nodes_container_get_next(nodes), nullptr);
}

TEST_F(container_order, a_new_node_for_which_memory_is_short_is_refused)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    create(mac_of(1));
    fail_next_allocations(1);
    EXPECT_EQ(create(mac_of(2)), nullptr);
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_THAT(log.messages("main"), ElementsAre("nodes_container_find_or_create_by_mac: out of memory!"));
    EXPECT_EQ(nodes_container_get_size(nodes), 1U);
    EXPECT_EQ(find(mac_of(2)), nullptr);
    EXPECT_NE(create(mac_of(2)), nullptr);
}

TEST_F(container_order, a_container_for_which_memory_is_short_is_refused)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    fail_next_allocations(1);
    EXPECT_EQ(nodes_container_new(), nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre("nodes_container_new: out of memory!"));
}

} // namespace rtls
