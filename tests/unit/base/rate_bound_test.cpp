#include "base/rate_bound.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdint>
#include <string>

namespace rtls {

static in_addr address_of(uint32_t host_order)
{
    return {htonl(host_order)};
}

static unsigned int allowed(rate_bound& bound, in_addr address, unsigned int tries, int64_t now_ms)
{
    unsigned int count = 0;
    for (unsigned int i = 0; i < tries; i++)
        count += bound.allows(address, now_ms) ? 1 : 0;
    return count;
}

TEST(rate_bound, an_address_has_a_hundred_answers_a_second)
{
    rate_bound bound{7};
    const in_addr address = address_of(0xC0A80105);
    for (const int64_t second : {int64_t{0}, int64_t{1000}, int64_t{2000}, int64_t{500'000'000'000}}) {
        EXPECT_EQ(allowed(bound, address, 60, second), 60U) << second;
        EXPECT_EQ(allowed(bound, address, 1000, second + 500), 40U) << second;
        EXPECT_EQ(allowed(bound, address, 1000, second + 999), 0U) << second;
    }
}

TEST(rate_bound, a_second_begins_with_its_first_answer)
{
    rate_bound bound{7};
    const in_addr address = address_of(0xC0A80105);
    EXPECT_EQ(allowed(bound, address, 1000, 5700), 100U);
    EXPECT_EQ(allowed(bound, address, 1, 6699), 0U);
    EXPECT_EQ(allowed(bound, address, 1000, 6700), 100U);
}

TEST(rate_bound, addresses_have_their_own_allowance_for_the_most_part)
{
    rate_bound bound{7};
    EXPECT_EQ(allowed(bound, address_of(0x0A000001), 1000, 0), 100U);
    unsigned int untouched = 0;
    for (uint32_t i = 2; i < 1002; i++)
        untouched += bound.allows(address_of(0x0A000000 + i), 0) ? 1 : 0;
    EXPECT_GT(untouched, 980U);
}

TEST(rate_bound, forged_addresses_buy_no_further_answers)
{
    rate_bound bound{7};
    const in_addr address = address_of(0xC0A80105);
    EXPECT_EQ(allowed(bound, address, 1000, 0), 100U);
    for (uint32_t i = 0; i < 100'000; i++)
        (void)bound.allows(address_of(0x0A000000 + i), 1);
    EXPECT_EQ(allowed(bound, address, 1000, 2), 0U);
}

TEST(rate_bound, the_seed_chooses_who_shares)
{
    const auto sharers = [](uint64_t seed) {
        rate_bound bound{seed};
        (void)allowed(bound, address_of(0x0A000000), 100, 0);
        std::string text;
        for (uint32_t i = 1; i < 10'000; i++)
            if (!bound.allows(address_of(0x0A000000 + i * 0x101), 0))
                text += std::to_string(i) + " ";
        return text;
    };
    EXPECT_NE(sharers(1), sharers(0x123456789ABCDEF0U));
}

TEST(refusal_episode, is_said_once_until_ten_quiet_seconds_have_passed)
{
    refusal_episode episode;
    EXPECT_TRUE(episode.begins(5));
    for (const int64_t now : {5, 6, 10'000})
        EXPECT_FALSE(episode.begins(now)) << now;
    EXPECT_FALSE(episode.begins(19'999));
    EXPECT_TRUE(episode.begins(29'999));
    EXPECT_FALSE(episode.begins(30'000));
}

} // namespace rtls
