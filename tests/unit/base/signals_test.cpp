#include "base/signals.h"

#include "support/stop.h"

#include <czmq.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace rtls {

namespace {

bool is_blocked(int signal)
{
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 1;
}

class signals : public testing::Test {
protected:
    signals()
    {
        zsys_init();                        // its handlers set the flag
        (void)std::signal(SIGHUP, SIG_DFL); // whatever we were started with
        clear_stop();
    }
    ~signals() override
    {
        clear_stop();
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
    }
};

TEST_F(signals, an_actor_blocks_all_of_them_for_its_own_thread_only)
{
    std::thread([] {
        block_all_signals();
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD, SIGUSR1, SIGALRM, SIGWINCH})
            EXPECT_TRUE(is_blocked(signal)) << signal;
    }).join();
    EXPECT_FALSE(is_blocked(SIGTERM));
}

TEST_F(signals, those_that_stop_the_daemon_are_blocked_and_inherited)
{
    block_stop_signals();
    const auto check = [] {
        EXPECT_TRUE(is_blocked(SIGINT));
        EXPECT_TRUE(is_blocked(SIGTERM));
        EXPECT_TRUE(is_blocked(SIGHUP));
        EXPECT_FALSE(is_blocked(SIGUSR1));
    };
    check();
    std::thread(check).join();
}

TEST_F(signals, a_sleep_takes_the_one_that_came_before_at_once)
{
    stop_on_hangup();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        clear_stop();
        block_stop_signals();
        ASSERT_EQ(raise(signal), 0);
        EXPECT_FALSE(is_stop_requested());
        const auto start = std::chrono::steady_clock::now();
        sleep_open_to_stop_signals(60'000);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
        EXPECT_TRUE(is_stop_requested());
        EXPECT_TRUE(is_blocked(signal)) << "again";
    }
}

TEST_F(signals, a_sleep_without_one_lasts)
{
    block_stop_signals();
    const auto start = std::chrono::steady_clock::now();
    sleep_open_to_stop_signals(20);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_FALSE(is_stop_requested());
    EXPECT_TRUE(is_blocked(SIGTERM));
}

TEST_F(signals, a_stop_can_be_requested_from_any_thread)
{
    EXPECT_FALSE(is_stop_requested());
    std::thread(request_stop).join();
    EXPECT_TRUE(is_stop_requested());
}

TEST_F(signals, a_hangup_that_was_to_be_ignored_still_is)
{
    (void)std::signal(SIGHUP, SIG_IGN); // as nohup does
    stop_on_hangup();
    ASSERT_EQ(raise(SIGHUP), 0);
    EXPECT_FALSE(is_stop_requested());
}

} // namespace

} // namespace rtls
