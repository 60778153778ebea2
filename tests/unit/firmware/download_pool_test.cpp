#include "firmware/download_pool.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace rtls {

namespace {

class pool_of_downloads : public testing::Test {
protected:
    ~pool_of_downloads() override { release(); }

    void release()
    {
        if (!m_is_released.exchange(true))
            m_released.set_value();
    }

    // Work that lasts until release().
    std::function<void()> held()
    {
        return [this, until = m_until] {
            const int now = ++m_running;
            m_most = std::max(m_most.load(), now);
            until.wait();
            --m_running;
            ++m_done;
        };
    }

    std::atomic<int> m_running = 0;
    std::atomic<int> m_most = 0;
    std::atomic<int> m_done = 0;
    std::atomic<bool> m_is_released = false;
    std::promise<void> m_released;
    std::shared_future<void> m_until = m_released.get_future().share();
};

} // namespace

TEST_F(pool_of_downloads, operators_leave_half_of_the_threads_to_the_servers)
{
    download_pool pool;
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(pool.order(held(), {}, download_pool::customer::operators));
    EXPECT_TRUE(wait_until([&] { return m_running == 2; }));
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(pool.order(held()));
    EXPECT_TRUE(wait_until([&] { return m_running == 4; })) << "past eight operators' that wait";
    release();
    EXPECT_TRUE(wait_until([&] { return m_done == 12; }));
}

TEST_F(pool_of_downloads, few_of_operators_wait)
{
    log_capture log;
    download_pool pool;
    const auto fetch = [&] { return pool.order(held(), {}, download_pool::customer::operators); };
    for (size_t i = 0; i < download_pool::most_threads_for_operators; ++i)
        EXPECT_TRUE(fetch());
    EXPECT_TRUE(wait_until([&] { return m_running == 2; }));
    for (size_t i = 0; i < download_pool::most_waiting_of_operators; ++i)
        ASSERT_TRUE(fetch()) << i;
    EXPECT_FALSE(fetch());
    EXPECT_TRUE(pool.order(held())) << "the servers' have room";
    EXPECT_THAT(log.messages("main"), testing::ElementsAre("download_pool: 100 downloads wait already"));
    release();
}

TEST_F(pool_of_downloads, an_order_that_memory_is_too_short_for_is_forgotten)
{
    log_capture log;
    download_pool pool;
    EXPECT_TRUE(pool.order([] { throw std::bad_alloc{}; }, "lane"));
    EXPECT_TRUE(pool.order(held(), "lane"));
    EXPECT_TRUE(wait_until([&] { return m_running == 1; })) << "its lane is free again";
    EXPECT_THAT(log.messages("main"), testing::ElementsAre("download_pool: out of memory!"));
    release();
}

TEST_F(pool_of_downloads, an_order_that_memory_is_too_short_to_take_is_counted)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    download_pool pool;
    std::function<void()> work = held();
    fail_next_allocations(1, sizeof(std::thread));
    EXPECT_FALSE(pool.order(std::move(work)));
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_EQ(pool.current_load().not_taken, 1U);
    EXPECT_EQ(pool.current_load().refused, 0U);
    EXPECT_TRUE(pool.order(held()));
    EXPECT_EQ(pool.current_load().not_taken, 1U);
}

// The name of a lane is longer than what a string keeps within itself: a copy of it would ask for memory.
TEST_F(pool_of_downloads, an_order_that_is_taken_begins_without_memory)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    const std::string lane(100, 'n');
    std::promise<void> memory_is_out;
    std::atomic<unsigned> left = 0;
    download_pool pool;
    for (size_t i = 1; i < download_pool::most_threads; ++i)
        ASSERT_TRUE(pool.order(held()));
    ASSERT_TRUE(pool.order([&] {
        memory_is_out.get_future().wait();
        fail_next_allocations(1);
    }));
    ASSERT_TRUE(pool.order(
        [&] {
            left = failures_left();
            fail_next_allocations(0);
            ++m_done;
        },
        lane));
    memory_is_out.set_value();
    EXPECT_TRUE(wait_until([&] { return m_done == 1; }));
    EXPECT_EQ(left, 1U) << "nothing was asked for in between";
    release();
}

TEST_F(pool_of_downloads, does_four_at_once_and_the_others_after_them)
{
    download_pool pool;
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(pool.order(held()));
    EXPECT_TRUE(wait_until([&] { return m_running == 4; }));
    EXPECT_EQ(m_done, 0);
    release();
    EXPECT_TRUE(wait_until([&] { return m_done == 20; }));
    EXPECT_EQ(m_most, 4);
}

TEST_F(pool_of_downloads, orders_of_a_lane_follow_one_another_and_the_others_pass_them)
{
    download_pool pool;
    std::mutex mutex;
    std::vector<std::string> done;
    const auto note = [&](const char* what) {
        return [&, what] {
            const std::lock_guard guard{mutex};
            done.emplace_back(what);
        };
    };
    const auto number = [&] {
        const std::lock_guard guard{mutex};
        return done.size();
    };
    pool.order(held(), "lane");
    ASSERT_TRUE(wait_until([&] { return m_running == 1; }));
    pool.order(note("second of the lane"), "lane");
    pool.order(note("third of the lane"), "lane");
    pool.order(note("another lane"), "other");
    ASSERT_TRUE(wait_until([&] { return number() == 1; }));
    pool.order(note("no lane"));
    ASSERT_TRUE(wait_until([&] { return number() == 2; }));
    release();
    ASSERT_TRUE(wait_until([&] { return number() == 4; }));
    EXPECT_THAT(done,
                testing::ElementsAre("another lane", "no lane", "second of the lane", "third of the lane"));
}

TEST_F(pool_of_downloads, refuses_what_is_too_much)
{
    log_capture log;
    download_pool pool;
    for (size_t i = 0; i < download_pool::most_threads; ++i)
        pool.order(held());
    ASSERT_TRUE(wait_until([&] { return m_running == 4; }));
    for (size_t i = 0; i < download_pool::most_waiting; ++i)
        ASSERT_TRUE(pool.order([] {}));
    EXPECT_FALSE(pool.order([] {}));
    EXPECT_THAT(log.messages("main"), testing::ElementsAre("download_pool: 1000 downloads wait already"));
    release();
}

TEST_F(pool_of_downloads, its_end_waits_for_what_is_done_and_drops_the_rest)
{
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = owned;
    bool is_done = false;
    std::thread releasing;
    {
        download_pool pool;
        for (size_t i = 0; i < download_pool::most_threads; ++i)
            pool.order(held());
        ASSERT_TRUE(wait_until([&] { return m_running == 4; }));
        pool.order([&, owned] { is_done = true; });
        owned.reset();
        releasing = std::thread{[&] {
            EXPECT_TRUE(wait_until([&] { return watch.expired(); }));
            release();
        }};
    }
    EXPECT_EQ(m_done, 4);
    EXPECT_FALSE(is_done);
    EXPECT_TRUE(watch.expired());
    releasing.join();
}

TEST_F(pool_of_downloads, has_no_thread_before_its_first_order_and_none_takes_signals)
{
    download_pool pool;
    std::promise<bool> blocked;
    pool.order([&] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        blocked.set_value(sigismember(&mask, SIGTERM) == 1);
    });
    EXPECT_TRUE(blocked.get_future().get());
}

} // namespace rtls
