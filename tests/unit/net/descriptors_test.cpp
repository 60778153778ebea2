#include "net/descriptors.h"

#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

namespace rtls {

using testing::ElementsAre;

namespace {

// Another limit for as long as it lives.
class soft_limit {
public:
    explicit soft_limit(rlim_t soft)
    {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit limit{soft, m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~soft_limit() { setrlimit(RLIMIT_NOFILE, &m_before); }
    soft_limit(const soft_limit&) = delete;
    soft_limit& operator=(const soft_limit&) = delete;
    rlim_t hard() const { return m_before.rlim_max; }

private:
    rlimit m_before{};
};

} // namespace

TEST(descriptors, the_last_ones_are_reserved)
{
    const soft_limit limit{256};
    EXPECT_FALSE(is_reserved_descriptor(-1)); // unknown
    EXPECT_FALSE(is_reserved_descriptor(0));
    EXPECT_FALSE(is_reserved_descriptor(256 - descriptors_reserved - 1));
    EXPECT_TRUE(is_reserved_descriptor(256 - descriptors_reserved));
    EXPECT_TRUE(is_reserved_descriptor(255));
}

TEST(descriptors, the_soft_limit_is_raised_to_the_hard_one)
{
    const soft_limit limit{64};
    const size_t allowed = raise_descriptor_limit();
    rlimit now{};
    getrlimit(RLIMIT_NOFILE, &now);
    EXPECT_EQ(now.rlim_cur, limit.hard());
    EXPECT_EQ(allowed, now.rlim_cur);
}

TEST(full_house, refuses_who_would_take_the_reserve_and_says_so_once_an_episode)
{
    log_capture log;
    const soft_limit limit{256};
    full_house house{"guests"};
    EXPECT_FALSE(house.refuses(100, 0));
    EXPECT_TRUE(house.refuses(200, 1000));
    EXPECT_TRUE(house.refuses(201, 2000));
    EXPECT_EQ(house.refused(), 2U);
    EXPECT_THAT(
        log.messages("main"),
        ElementsAre("nearly all files that may be open are, no more guests are let in! See ulimit -Hn, "
                    "or LimitNOFILE="));
    EXPECT_TRUE(house.refuses(200, 2000 + refusal_episode::quiet_ms));
    EXPECT_EQ(log.messages("main").size(), 1U);
}

} // namespace rtls
