// Walks through the nodes in parts, between which the lock is let go of.
#include "registry/nodes_container.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <vector>

namespace rtls {

namespace {

using mac_bytes = std::array<uint8_t, mac_size>;

class part_walk : public testing::Test {
protected:
    static mac_bytes mac_of(uint64_t number)
    {
        mac_bytes mac;
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
    std::vector<mac_bytes> all()
    {
        std::vector<mac_bytes> macs;
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
    bool visit(node_table::part_walk& walk, size_t most, std::vector<mac_bytes>& macs)
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
        std::vector<mac_bytes> macs;
        auto walk = begin();
        while (!walk.is_done) {
            const size_t before = macs.size();
            ASSERT_TRUE(visit(walk, most, macs));
            EXPECT_LE(macs.size() - before, most);
        }
        EXPECT_EQ(macs, all()) << most;
    }
}

TEST_F(part_walk, is_done_at_once_without_nodes)
{
    std::vector<mac_bytes> macs;
    auto walk = begin();
    EXPECT_TRUE(visit(walk, 10, macs));
    EXPECT_TRUE(walk.is_done);
    EXPECT_TRUE(macs.empty());
}

TEST_F(part_walk, must_begin_anew_when_the_table_has_grown)
{
    add(0, 100);
    std::vector<mac_bytes> macs;
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
        std::multiset<mac_bytes> seen;
        auto walk = begin();
        for (uint64_t turn = 0; !walk.is_done; ++turn) {
            std::vector<mac_bytes> macs;
            ASSERT_TRUE(visit(walk, most, macs));
            seen.insert(macs.begin(), macs.end());
            const mac_bytes guest = mac_of(5000 + turn % 20);
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
