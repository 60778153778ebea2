// The queue itself, and what the container's ageing and its limit make of it.
#include "registry/expiry_queue.h"

#include "support/log_capture.h"
#include "support/registry_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace rtls {

using testing::IsEmpty;

class expiry_queue_test : public registry_fixture {
protected:
    size_t living() const
    {
        const nodes_guard guard{container()};
        return container().living();
    }
};

TEST(expiry_queue, knows_who_expired_first)
{
    stored_node nodes[3]{};
    expiry_queue queue;
    EXPECT_EQ(queue.longest_expired(), nullptr);
    for (auto& node : nodes)
        queue.add(node);
    EXPECT_EQ(queue.longest_expired(), &nodes[0]);
    queue.set_lifetime(nodes[0], 2);
    queue.set_lifetime(nodes[1], 1);
    queue.set_lifetime(nodes[2], 0); // keeps its place
    EXPECT_EQ(queue.longest_expired(), &nodes[2]);
    queue.remove(nodes[2]);
    EXPECT_EQ(queue.longest_expired(), nullptr);
    queue.tick();
    EXPECT_EQ(queue.longest_expired(), &nodes[1]);
    queue.settle(nodes[0]);
    EXPECT_EQ(nodes[0].lifetime, 1);
    queue.tick();
    EXPECT_EQ(queue.longest_expired(), &nodes[1]);
    queue.remove(nodes[1]);
    EXPECT_EQ(queue.longest_expired(), &nodes[0]);
    EXPECT_EQ(nodes[0].lifetime, 0);
}

TEST_F(expiry_queue_test, ageing_stops_at_0_and_removes_nothing)
{
    const struct {
        uint16_t before;
        uint16_t after;
    } cases[] = {{0, 0}, {1, 0}, {2, 1}, {300, 299}, {0xFFFF, 0xFFFE}};
    for (const auto& c : cases)
        create(mac_of(c.before))->lifetime = c.before;
    nodes_container_update_lifetime(nodes);
    for (const auto& c : cases)
        EXPECT_EQ(find(mac_of(c.before))->lifetime, c.after);
    for (int i = 0; i < 5; ++i)
        nodes_container_update_lifetime(nodes);
    EXPECT_EQ(find(mac_of(1))->lifetime, 0);
    EXPECT_EQ(find(mac_of(300))->lifetime, 294);
    EXPECT_EQ(nodes_container_get_size(nodes), std::size(cases));
}

TEST_F(expiry_queue_test, ageing_does_not_move_the_cursor)
{
    for (uint64_t i = 0; i < 20; ++i)
        create(mac_of(i));
    const auto order = in_order();
    std::vector<mac_array> seen;
    for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes)) {
        seen.push_back(mac_of(*node));
        nodes_container_update_lifetime(nodes);
    }
    EXPECT_EQ(seen, order);
}

TEST_F(expiry_queue_test, at_the_limit_the_longest_expired_node_makes_room)
{
    log_capture log;
    limit_to(4);
    set_lifetime(create(mac_of(1)), 3);
    set_lifetime(create(mac_of(2)), 1);
    set_lifetime(create(mac_of(3)), 2);
    set_lifetime(create(mac_of(4)), 300);
    age(3);
    for (const uint64_t gone :
         {2U, 3U, 1U, 12U, 13U}) { // those after the first three are themselves newcomers
        EXPECT_NE(find(mac_of(gone)), nullptr) << gone;
        EXPECT_NE(create(mac_of(gone + 10)), nullptr);
        EXPECT_EQ(find(mac_of(gone)), nullptr) << gone;
        EXPECT_EQ(nodes_container_get_size(nodes), 4U);
    }
    EXPECT_NE(find(mac_of(4)), nullptr);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST_F(expiry_queue_test, a_node_that_is_renewed_keeps_its_room)
{
    limit_to(2);
    set_lifetime(create(mac_of(1)), 1);
    set_lifetime(create(mac_of(2)), 2);
    age(2);
    set_lifetime(find(mac_of(1)), 1);
    create(mac_of(3));
    EXPECT_NE(find(mac_of(1)), nullptr);
    EXPECT_EQ(find(mac_of(2)), nullptr);
}

TEST_F(expiry_queue_test, no_node_that_lives_makes_room)
{
    limit_to(3);
    set_lifetime(create(mac_of(1)), 0xFFFF); // longer than any node can name
    set_lifetime(create(mac_of(2)), 5000);
    create(mac_of(3))->lifetime = 4998; // behind the container's back
    age(4997);
    EXPECT_EQ(create(mac_of(4)), nullptr);
    age(1);
    EXPECT_NE(create(mac_of(4)), nullptr);
    EXPECT_EQ(find(mac_of(3)), nullptr);
    EXPECT_EQ(find(mac_of(2))->lifetime, 2);
    EXPECT_EQ(find(mac_of(1))->lifetime, 0xFFFF - 4998);
}

// Against lifetimes counted down one by one, and a list of those that expired in their order.
TEST_F(expiry_queue_test, lifetimes_and_room_agree_with_a_count_whatever_happens)
{
    constexpr size_t limit = 20;
    limit_to(limit);
    std::map<mac_array, uint16_t> lifetimes;
    std::vector<mac_array> waiting; // in the order of when their lifetimes were set
    std::vector<mac_array> expired;
    std::mt19937_64 random(11);
    const auto forget = [&](const mac_array& mac) {
        std::erase(waiting, mac);
        std::erase(expired, mac);
    };
    const auto set = [&](const mac_array& mac, uint16_t lifetime) {
        if (lifetimes[mac] == 0 && lifetime == 0)
            return;
        forget(mac);
        lifetimes[mac] = lifetime;
        (lifetime == 0 ? expired : waiting).push_back(mac);
    };
    for (int i = 0; i < 30'000; ++i) {
        const mac_array mac = mac_of(random() % 40);
        switch (random() % 8) {
        case 0:
            age(1);
            for (const mac_array& one : std::vector<mac_array>(waiting))
                if (--lifetimes[one] == 0) {
                    std::erase(waiting, one);
                    expired.push_back(one);
                }
            break;
        case 1:
            nodes_container_delete(nodes, mac.data());
            forget(mac);
            lifetimes.erase(mac);
            break;
        case 2:
        case 3: {
            const bool known = lifetimes.count(mac) != 0;
            const bool full = lifetimes.size() == limit;
            ASSERT_EQ(create(mac) != nullptr, known || !full || !expired.empty()) << i;
            if (known || (full && expired.empty()))
                break;
            if (full) {
                lifetimes.erase(expired.front());
                expired.erase(expired.begin());
            }
            lifetimes[mac] = 0;
            expired.push_back(mac);
            break;
        }
        default:
            if (NODE_t* node = find(mac)) {
                const auto lifetime = static_cast<uint16_t>(random() % 4 == 0 ? 0 : random() % 30);
                set_lifetime(node, lifetime);
                set(mac, lifetime);
            }
        }
        std::map<mac_array, uint16_t> listed;
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            listed[mac_of(*node)] = node->lifetime;
        ASSERT_EQ(listed, lifetimes) << i;
        ASSERT_EQ(living(), waiting.size()) << i;
    }
}

} // namespace rtls
