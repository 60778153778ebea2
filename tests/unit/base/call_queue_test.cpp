#include "base/call_queue.h"
#include "base/czmq_ptr.h"
#include "support/failing_new.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

namespace rtls {

using testing::ElementsAre;

// Ends the loop from within it.
static void request_end(zloop_t* loop)
{
    zloop_timer(
        loop, 0, 1, [](zloop_t*, int, void*) { return -1; }, nullptr);
}

TEST(call_queue, calls_of_other_threads_are_made_on_the_loop_s_in_their_order)
{
    const zloop_ptr loop{zloop_new()};
    call_queue queue;
    ASSERT_TRUE(queue.join(loop.get()));
    constexpr int calls = 1000;
    std::vector<int> made;
    std::vector<std::thread::id> threads;
    std::thread other{[&] {
        for (int i = 0; i <= calls; ++i)
            queue.post([&, i] {
                made.push_back(i);
                threads.push_back(std::this_thread::get_id());
                if (i == calls)
                    request_end(loop.get());
            });
    }};
    zloop_start(loop.get());
    other.join();
    ASSERT_EQ(made.size(), calls + 1U);
    for (int i = 0; i <= calls; ++i)
        EXPECT_EQ(made[static_cast<size_t>(i)], i);
    EXPECT_THAT(threads, testing::Each(std::this_thread::get_id()));
}

TEST(call_queue, a_closed_one_makes_no_call_and_frees_what_they_own)
{
    call_queue queue;
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = owned;
    bool is_made = false;
    queue.post([&, owned] { is_made = true; });
    owned.reset();
    EXPECT_FALSE(watch.expired());
    queue.close();
    EXPECT_TRUE(watch.expired());
    queue.post([&] { is_made = true; });
    queue.make_calls();
    EXPECT_FALSE(is_made);
}

TEST(call_queue, a_call_without_memory_is_logged_and_the_next_is_made)
{
    log_capture log;
    call_queue queue;
    bool is_made = false;
    queue.post([] { throw std::bad_alloc{}; });
    queue.post([&] { is_made = true; });
    queue.make_calls();
    EXPECT_TRUE(is_made);
    EXPECT_THAT(log.messages("main"), ElementsAre("call_queue: out of memory!"));
}

TEST(call_queue, a_prepared_call_needs_no_memory_to_be_handed_in)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    call_queue queue;
    int calls = 0;
    const auto owned = std::make_shared<int>();
    prepared_call call{[&calls, owned, also = owned] { ++calls; }}; // more than a function holds in place
    fail_next_allocations(1000);
    queue.post(std::move(call));
    fail_next_allocations(0);
    queue.make_calls();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(owned.use_count(), 1) << "what it owns goes with it";
    EXPECT_THAT(log.messages("main"), testing::IsEmpty());
}

TEST(call_queue_slot, has_calls_made_while_there_is_a_queue)
{
    call_queue_slot slot;
    int calls = 0;
    EXPECT_FALSE(slot.post([&] { ++calls; }));
    const auto queue = std::make_shared<call_queue>();
    slot.set(queue);
    EXPECT_TRUE(slot.post([&] { ++calls; }));
    queue->make_calls();
    EXPECT_EQ(calls, 1);
    slot.set(nullptr);
    EXPECT_FALSE(slot.post([&] { ++calls; }));
    queue->make_calls();
    EXPECT_EQ(calls, 1);
}

// What waits in a queue that is closed is freed, so that who waits for an answer learns that there is none.
TEST(call_queue_slot, frees_what_is_never_called)
{
    call_queue_slot slot;
    const auto queue = std::make_shared<call_queue>();
    slot.set(queue);
    const auto owned = std::make_shared<int>();
    EXPECT_TRUE(slot.post([owned] {}));
    EXPECT_EQ(owned.use_count(), 2);
    queue->close();
    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_TRUE(slot.post([owned] {}));
    EXPECT_EQ(owned.use_count(), 1);
}

} // namespace rtls
