#include "core/thread_annotations.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>
#include <vector>

namespace {

bool is_free(rtls::annotated_mutex& mutex)
{
    bool taken = false;
    std::thread([&] {
        if (mutex.try_lock()) {
            taken = true;
            mutex.unlock();
        }
    }).join();
    return taken;
}

TEST(annotated_mutex, is_held_from_lock_to_unlock)
{
    rtls::annotated_mutex mutex;
    EXPECT_TRUE(is_free(mutex));
    mutex.lock();
    EXPECT_FALSE(is_free(mutex));
    mutex.unlock();
    EXPECT_TRUE(is_free(mutex));
}

TEST(mutex_guard, holds_the_mutex_while_it_lives)
{
    rtls::annotated_mutex mutex;
    {
        const rtls::mutex_guard guard(mutex);
        EXPECT_FALSE(is_free(mutex));
    }
    EXPECT_TRUE(is_free(mutex));
}

TEST(annotated_mutex, keeps_threads_apart_and_fits_a_condition_variable)
{
    constexpr int threads_number = 4;
    constexpr int rounds = 1000;
    rtls::annotated_mutex mutex;
    std::condition_variable_any done;
    int count = 0;
    std::vector<std::thread> threads;
    threads.reserve(threads_number);
    for (int i = 0; i < threads_number; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                const rtls::mutex_guard guard(mutex);
                ++count;
                done.notify_one();
            }
        });
    {
        const rtls::mutex_guard guard(mutex);
        done.wait(mutex, [&] { return count == threads_number * rounds; });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(count, threads_number * rounds);
}

} // namespace
