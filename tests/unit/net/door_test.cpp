#include "net/door.h"

#include "base/czmq_ptr.h"
#include "net/address_counts.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

static in_addr address_of(const char* text)
{
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address;
}

static const in_addr here = address_of("10.1.2.3");
static const in_addr there = address_of("11.1.2.3");

class door_test : public testing::Test {
protected:
    door& with(const std::string& ports)
    {
        const zconfig_ptr config{zconfig_str_load(("ports\n" + ports).c_str())};
        EXPECT_TRUE(read_door_rules(config.get(), "win", m_door.rules)) << ports;
        return m_door;
    }

    void expect_refused_once(door_refusal reason, const char* line)
    {
        EXPECT_EQ(m_door.refused(reason), 1U);
        EXPECT_THAT(m_log.messages("main"), ElementsAre(line));
    }

    log_capture m_log;
    door m_door{"WIN"};
};

TEST_F(door_test, without_rules_everybody_may_come)
{
    const door& open = with("    win = 4001\n");
    EXPECT_EQ(open.rules.address, "*");
    EXPECT_TRUE(m_door.admits(here, 1'000'000, 1'000'000, 0));
    EXPECT_THAT(m_log.messages("main"), IsEmpty());
}

TEST_F(door_test, a_bound_for_all)
{
    door& bounded = with("    win_connections = 0x3\n");
    EXPECT_TRUE(bounded.admits(here, 2, 2, 0));
    EXPECT_FALSE(bounded.admits(here, 3, 0, 0));
    expect_refused_once(door_refusal::full, "WIN port: 10.1.2.3 is refused, all connections are taken");
}

TEST_F(door_test, a_bound_for_each_address)
{
    door& bounded = with("    win_connections_per_address = 2\n");
    EXPECT_TRUE(bounded.admits(here, 1000, 1, 0));
    EXPECT_FALSE(bounded.admits(here, 1000, 2, 0));
    EXPECT_TRUE(bounded.admits(there, 1001, 0, 0));
    expect_refused_once(door_refusal::address,
                        "WIN port: 10.1.2.3 is refused, it has as many as one address may have");
}

TEST_F(door_test, only_these_networks)
{
    door& narrow = with("    win_networks = 10.0.0.0/8, 192.168.0.0/16\n");
    EXPECT_TRUE(narrow.admits(here, 0, 0, 0));
    EXPECT_FALSE(narrow.admits(there, 0, 0, 0));
    expect_refused_once(door_refusal::network,
                        "WIN port: 11.1.2.3 is refused, it is in none of the networks that may connect");
}

TEST_F(door_test, an_episode_of_refusals_is_said_once_and_counted)
{
    door& narrow = with("    win_networks = 10.0.0.0/8\n    win_connections = 1\n");
    for (int64_t now = 0; now < 50; ++now)
        EXPECT_FALSE(narrow.admits(there, 0, 0, now));
    EXPECT_EQ(m_log.messages("main").size(), 1U);
    EXPECT_FALSE(narrow.admits(here, 1, 0, 50)) << "another reason";
    EXPECT_EQ(m_log.messages("main").size(), 1U) << "is an episode of its own";
    EXPECT_FALSE(narrow.admits(there, 0, 0, 50 + refusal_episode::quiet_ms));
    EXPECT_EQ(m_log.messages("main").size(), 1U) << "after a time of quiet it is the next";
    EXPECT_EQ(narrow.refused(door_refusal::network), 51U);
    EXPECT_EQ(narrow.refused(door_refusal::full), 1U);
    EXPECT_EQ(narrow.refused(door_refusal::address), 0U);
}

TEST_F(door_test, an_address_to_bind)
{
    EXPECT_EQ(with("    win_address = 127.0.0.1\n").rules.address, "127.0.0.1");
    EXPECT_EQ(with("    win_address = *\n").rules.address, "*");
}

TEST_F(door_test, what_cannot_be_read_is_refused)
{
    const struct {
        const char* item;
        const char* said;
    } cases[] = {
        {"win_address = localhost", R"(The parameter "ports/win_address" is no IPv4 address!)"},
        {"win_address = 127.0.0.1:4001", R"(The parameter "ports/win_address" is no IPv4 address!)"},
        {"win_connections = 0", R"(The parameter "ports/win_connections" is no positive number!)"},
        {"win_connections = -1", R"(The parameter "ports/win_connections" is no positive number!)"},
        {"win_connections = 10 per house", R"(The parameter "ports/win_connections" is no positive number!)"},
        {"win_connections_per_address = many",
         R"(The parameter "ports/win_connections_per_address" is no positive number!)"},
        {"win_networks = 10.0.0.0/99", R"(The parameter "ports/win_networks" is no list of IPv4 networks!)"},
        {"win_networks =", R"(The parameter "ports/win_networks" is no list of IPv4 networks!)"},
    };
    for (const auto& c : cases) {
        const zconfig_ptr config{zconfig_str_load(("ports\n    " + std::string{c.item} + '\n').c_str())};
        door_rules rules;
        EXPECT_FALSE(read_door_rules(config.get(), "win", rules)) << c.item;
        EXPECT_THAT(m_log.messages("main"), ElementsAre(c.said));
    }
}

TEST_F(door_test, each_door_has_keys_of_its_own)
{
    const zconfig_ptr config{zconfig_str_load("ports\n    win_connections = 7\n")};
    door_rules rules;
    EXPECT_TRUE(read_door_rules(config.get(), "terminal", rules));
    EXPECT_EQ(rules.most, 0U);
}

TEST(address_counts, count_by_address)
{
    address_counts counts;
    counts.add(here);
    counts.add(here);
    counts.add(there);
    EXPECT_EQ(counts.of(here), 2U);
    counts.remove(here);
    counts.remove(there);
    counts.remove(there);
    EXPECT_EQ(counts.of(here), 1U);
    EXPECT_EQ(counts.of(there), 0U);
}

} // namespace rtls
