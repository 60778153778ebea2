// The queue itself, and what the container's ageing and its limit make of it.
#include "registry/expiry_queue.h"

#include "support/log_capture.h"
#include "support/registry_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
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

TEST(expiry_queue, tells_each_node_that_expires_once_and_in_order)
{
    stored_node nodes[4]{};
    expiry_queue queue;
    EXPECT_EQ(queue.next_newly_expired(), nullptr);
    for (auto& node : nodes)
        queue.add(node);
    queue.pass_over_expired();
    EXPECT_EQ(queue.next_newly_expired(), nullptr);
    queue.set_lifetime(nodes[2], 1);
    queue.set_lifetime(nodes[1], 1);
    queue.set_lifetime(nodes[3], 1);
    queue.tick();
    EXPECT_EQ(queue.longest_expired(), &nodes[0]) << "it has been for longest, told or not";
    EXPECT_EQ(queue.next_newly_expired(), &nodes[2]);
    queue.set_lifetime(nodes[1], 1); // renewed before its turn
    EXPECT_EQ(queue.next_newly_expired(), &nodes[3]);
    EXPECT_EQ(queue.next_newly_expired(), nullptr);
    queue.tick();
    EXPECT_EQ(queue.next_newly_expired(), &nodes[1]);
    queue.set_lifetime(nodes[3], 1);
    queue.tick();
    EXPECT_EQ(queue.next_newly_expired(), &nodes[3]) << "once more";
    queue.remove(nodes[0]);
    queue.remove(nodes[2]);
    EXPECT_EQ(queue.longest_expired(), &nodes[1]);
    EXPECT_EQ(queue.next_newly_expired(), nullptr);
}

TEST(expiry_queue, tells_no_node_that_was_moved_too_early)
{
    stored_node node{};
    expiry_queue queue;
    queue.add(node);
    queue.set_lifetime(node, 3000); // longer than the slots reach
    for (int i = 0; i < 2999; ++i) {
        queue.tick();
        ASSERT_EQ(queue.next_newly_expired(), nullptr) << i;
    }
    queue.tick();
    EXPECT_EQ(queue.next_newly_expired(), &node);
}

TEST_F(expiry_queue_test, as_many_as_there_is_room_for_are_taken_in_a_turn)
{
    for (uint64_t i = 1; i <= 5; ++i)
        set_lifetime(create(mac_of(i)), 1);
    container().pass_over_expired();
    age(1);
    std::array<mac_array, 3> room{};
    EXPECT_EQ(container().take_expired(room), 3U);
    EXPECT_EQ(room, (std::array{mac_of(1), mac_of(2), mac_of(3)}));
    EXPECT_EQ(container().take_expired(room), 2U);
    EXPECT_EQ(room[1], mac_of(5));
    EXPECT_EQ(container().take_expired(room), 0U);
    set_lifetime(find(mac_of(1)), 1);
    age(1);
    container().pass_over_expired();
    EXPECT_EQ(container().take_expired(room), 0U);
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

namespace {

// Lifetimes counted down one by one, and a list of those that expired in their order.
class lifetime_model {
public:
    explicit lifetime_model(size_t limit) : m_limit(limit) {}

    void age()
    {
        for (const mac_array& mac : std::vector<mac_array>(m_waiting))
            if (--m_lifetimes[mac] == 0) {
                std::erase(m_waiting, mac);
                m_expired.push_back(mac);
            }
    }
    void remove(const mac_array& mac)
    {
        forget(mac);
        m_lifetimes.erase(mac);
    }
    // Whether there is such a node then: an old one, or a new one, for which the longest expired may make room.
    bool create(const mac_array& mac)
    {
        if (m_lifetimes.count(mac) != 0)
            return true;
        if (m_lifetimes.size() == m_limit) {
            if (m_expired.empty())
                return false;
            m_lifetimes.erase(m_expired.front());
            m_expired.erase(m_expired.begin());
        }
        m_lifetimes[mac] = 0;
        m_expired.push_back(mac);
        return true;
    }
    void set(const mac_array& mac, uint16_t lifetime)
    {
        if (m_lifetimes[mac] == 0 && lifetime == 0)
            return;
        forget(mac);
        m_lifetimes[mac] = lifetime;
        (lifetime == 0 ? m_expired : m_waiting).push_back(mac);
    }

    const std::map<mac_array, uint16_t>& lifetimes() const { return m_lifetimes; }
    size_t living() const { return m_waiting.size(); }

private:
    void forget(const mac_array& mac)
    {
        std::erase(m_waiting, mac);
        std::erase(m_expired, mac);
    }

    const size_t m_limit;
    std::map<mac_array, uint16_t> m_lifetimes;
    std::vector<mac_array> m_waiting; // in the order of when their lifetimes were set
    std::vector<mac_array> m_expired;
};

class expiry_queue_random : public expiry_queue_test {
protected:
    static constexpr size_t limit = 20;

    expiry_queue_random() { limit_to(limit); }

    // One step of either.
    void step()
    {
        const mac_array mac = mac_of(m_random() % 40);
        switch (m_random() % 8) {
        case 0:
            age(1);
            m_model.age();
            break;
        case 1:
            nodes_container_delete(nodes, mac.data());
            m_model.remove(mac);
            break;
        case 2:
        case 3:
            ASSERT_EQ(create(mac) != nullptr, m_model.create(mac));
            break;
        default:
            renew(mac);
        }
    }
    void renew(const mac_array& mac)
    {
        NODE_t* node = find(mac);
        if (!node)
            return;
        const auto lifetime = static_cast<uint16_t>(m_random() % 4 == 0 ? 0 : m_random() % 30);
        set_lifetime(node, lifetime);
        m_model.set(mac, lifetime);
    }
    std::map<mac_array, uint16_t> listed()
    {
        std::map<mac_array, uint16_t> lifetimes;
        for (auto* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
            lifetimes[mac_of(*node)] = node->lifetime;
        return lifetimes;
    }

    lifetime_model m_model{limit};
    std::mt19937_64 m_random{11};
};

} // namespace

TEST_F(expiry_queue_random, lifetimes_and_room_agree_with_a_count_whatever_happens)
{
    for (int i = 0; i < 30'000; ++i) {
        SCOPED_TRACE(i);
        step();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_EQ(listed(), m_model.lifetimes());
        ASSERT_EQ(living(), m_model.living());
    }
}

} // namespace rtls
