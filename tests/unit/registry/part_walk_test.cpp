// Walks through the nodes in parts, between which the lock is let go of.
#include "registry/nodes_container.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <vector>

namespace rtls {

namespace {

class part_walk : public testing::Test {
protected:
    static mac_array mac_of(uint64_t number)
    {
        mac_array mac;
        number *= 0x9E3779B97F4A7C15U;
        std::memcpy(mac.data(), &number, mac.size());
        return mac;
    }
    void add(uint64_t first, uint64_t end)
    {
        const nodes_guard guard{m_nodes};
        for (uint64_t i = first; i < end; ++i)
            ASSERT_TRUE(m_nodes.find_or_create_by_mac(mac_of(i).data(), nullptr));
    }
    // MACs that share their hash in the table's order, which takes 33 of a byte for 1 of the one before: 4096
    // at most.
    void add_colliding(size_t number)
    {
        for (size_t i = 0; i < number; ++i) {
            mac_array mac;
            for (size_t pair = 0; pair < mac_size / 2; ++pair) {
                const size_t digit = i >> 3 * pair & 7;
                mac[2 * pair] = static_cast<uint8_t>(digit);
                mac[2 * pair + 1] = static_cast<uint8_t>(33 * digit);
            }
            const nodes_guard guard{m_nodes};
            EXPECT_TRUE(m_nodes.find_or_create_by_mac(mac.data(), nullptr));
        }
    }
    std::vector<mac_array> all()
    {
        std::vector<mac_array> macs;
        const nodes_guard guard{m_nodes};
        for (const NODE_t* node = m_nodes.first(); node; node = m_nodes.next())
            macs.push_back(std::to_array(node->mac_addr));
        return macs;
    }
    node_table::part_walk begin()
    {
        const nodes_guard guard{m_nodes};
        return m_nodes.begin_walk();
    }
    bool visit(node_table::part_walk& walk, size_t most, std::vector<mac_array>& macs)
    {
        const nodes_guard guard{m_nodes};
        return m_nodes.visit_part(walk, most,
                                  [&](const NODE_t& node) { macs.push_back(std::to_array(node.mac_addr)); });
    }

    NODES_CONTAINER_t m_nodes;
};

} // namespace

TEST_F(part_walk, gives_all_nodes_in_table_order_however_it_is_cut)
{
    add(0, 1000);
    for (const size_t most : {1U, 2U, 3U, 7U, 999U, 1000U, 1001U}) {
        std::vector<mac_array> macs;
        auto walk = begin();
        while (!walk.is_done) {
            const size_t before = macs.size();
            ASSERT_TRUE(visit(walk, most, macs));
            EXPECT_LE(macs.size() - before, most);
        }
        EXPECT_EQ(macs, all()) << most;
    }
}

// Peers can make up MACs that share a bucket: a part then looks at no more nodes than any other.
TEST_F(part_walk, looks_at_no_more_nodes_than_asked_for_in_a_long_chain)
{
    constexpr size_t number = 4096;
    add_colliding(number);
    for (const size_t most : {1U, 7U, 256U}) {
        std::vector<mac_array> seen;
        auto walk = begin();
        while (!walk.is_done) {
            const size_t before = walk.looks;
            ASSERT_TRUE(visit(walk, most, seen));
            ASSERT_LE(walk.looks - before, most);
        }
        EXPECT_EQ(walk.looks, number);
        EXPECT_EQ(seen, all()) << most;
    }
}

// Nor when the one that was looked at last goes: the chain is gone through again, in parts, too.
TEST_F(part_walk, looks_at_no_more_nodes_and_misses_nobody_when_the_last_one_goes)
{
    constexpr size_t number = 4000; // so few that the table does not grow any more
    constexpr size_t most = 100;
    add_colliding(number);
    std::multiset<mac_array> seen;
    auto walk = begin();
    for (size_t turn = 0; !walk.is_done; ++turn) {
        std::vector<mac_array> macs;
        const size_t before = walk.looks;
        ASSERT_TRUE(visit(walk, most, macs));
        ASSERT_LE(walk.looks - before, most);
        seen.insert(macs.begin(), macs.end());
        if (turn % 30 != 7 || macs.empty())
            continue;
        const nodes_guard guard{m_nodes};
        m_nodes.remove(macs.back().data());
        if (turn % 60 == 7) { // and comes back, as the first of its bucket
            ASSERT_TRUE(m_nodes.find_or_create_by_mac(macs.back().data(), nullptr));
        }
    }
    EXPECT_GT(walk.looks, number);
    EXPECT_EQ(seen.size(), number);
    EXPECT_EQ(std::set<mac_array>(seen.begin(), seen.end()).size(), number) << "each came once";
}

// Who only watches must not change what operators see, nor make the table grow while the actors wait.
TEST_F(part_walk, goes_on_behind_look_ups_of_those_who_watch)
{
    add_colliding(5);
    std::vector<mac_array> macs;
    auto walk = begin();
    const std::vector<mac_array> before = all();
    for (const mac_array& mac : before) {
        const nodes_guard guard{m_nodes};
        const NODE_t* node = m_nodes.look_up(mac.data());
        ASSERT_TRUE(node);
        EXPECT_EQ(std::to_array(node->mac_addr), mac);
    }
    EXPECT_TRUE(visit(walk, 3, macs));
    EXPECT_EQ(all(), before);
    {
        const nodes_guard guard{m_nodes};
        EXPECT_FALSE(m_nodes.look_up(mac_of(1).data()));
        EXPECT_TRUE(m_nodes.find_by_mac(before.back().data()));
    }
    EXPECT_FALSE(visit(walk, 3, macs)) << "the other look-up makes it grow";
}

TEST_F(part_walk, is_done_at_once_without_nodes)
{
    std::vector<mac_array> macs;
    auto walk = begin();
    EXPECT_TRUE(visit(walk, 10, macs));
    EXPECT_TRUE(walk.is_done);
    EXPECT_TRUE(macs.empty());
}

TEST_F(part_walk, must_begin_anew_when_the_table_has_grown)
{
    add(0, 100);
    std::vector<mac_array> macs;
    auto walk = begin();
    ASSERT_TRUE(visit(walk, 10, macs));
    add(100, 1000);
    EXPECT_FALSE(visit(walk, 10, macs));
}

// Those who were there all the time come once each, whoever comes and goes meanwhile.
TEST_F(part_walk, misses_nobody_who_stays)
{
    add(0, 1000);
    for (const size_t most : {1U, 3U, 50U}) {
        std::multiset<mac_array> seen;
        auto walk = begin();
        for (uint64_t turn = 0; !walk.is_done; ++turn) {
            std::vector<mac_array> macs;
            ASSERT_TRUE(visit(walk, most, macs));
            seen.insert(macs.begin(), macs.end());
            const mac_array guest = mac_of(5000 + turn % 20);
            const nodes_guard guard{m_nodes};
            m_nodes.remove(guest.data());
            ASSERT_TRUE(m_nodes.find_or_create_by_mac(guest.data(), nullptr));
            m_nodes.remove(mac_of(5000 + (turn + 7) % 20).data());
        }
        for (uint64_t i = 0; i < 1000; ++i)
            EXPECT_EQ(seen.count(mac_of(i)), 1U) << i << ", " << most << " in a part";
        const nodes_guard guard{m_nodes};
        for (uint64_t i = 0; i < 20; ++i)
            m_nodes.remove(mac_of(5000 + i).data());
    }
}

} // namespace rtls
