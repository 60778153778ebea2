#include "impl/log_queue.h"

#include "support/allocation_count.h"

#include <gtest/gtest.h>

#include <string>

using tav::libs::core::log_entry;
using tav::libs::core::log_queue;
using action = log_entry::action;

namespace {

void fill(log_queue& queue)
{
    while (queue.push_line(6, "line")) {
    }
}

TEST(log_queue, gives_back_in_order_what_it_was_given)
{
    log_queue queue;
    EXPECT_TRUE(queue.is_empty());
    EXPECT_TRUE(queue.push_line(3, "one"));
    queue.push_order(action::debug_on);
    EXPECT_TRUE(queue.push_line(6, "two"));
    EXPECT_EQ(queue.pushed(), 3U);
    const log_entry one = queue.pop();
    EXPECT_EQ(one.what, action::write);
    EXPECT_EQ(one.priority, 3);
    EXPECT_EQ(one.text, "one");
    EXPECT_EQ(queue.pop().what, action::debug_on);
    EXPECT_EQ(queue.pop().text, "two");
    EXPECT_TRUE(queue.is_empty());
}

TEST(log_queue, takes_so_many_lines)
{
    log_queue queue;
    for (size_t i = 0; i < log_queue::max_lines; ++i)
        ASSERT_TRUE(queue.push_line(6, "line")) << i;
    EXPECT_FALSE(queue.push_line(6, "line"));
    EXPECT_EQ(queue.gap().lost, 1U);
    queue.push_order(action::debug_off); // has room in any case
    EXPECT_EQ(queue.pop().text, "line");
    EXPECT_TRUE(queue.push_line(6, "line"));
    EXPECT_FALSE(queue.push_line(6, "line"));
}

TEST(log_queue, takes_so_many_bytes)
{
    constexpr size_t half = log_queue::max_bytes / 2;
    log_queue queue;
    EXPECT_TRUE(queue.push_line(6, std::string(half, 'x')));
    EXPECT_FALSE(queue.push_line(6, std::string(half + 1, 'x')));
    EXPECT_TRUE(queue.push_line(6, std::string(half, 'x')));
    EXPECT_FALSE(queue.push_line(6, "x"));
    EXPECT_TRUE(queue.push_line(6, ""));
    EXPECT_EQ(queue.pop().text.size(), half);
    EXPECT_TRUE(queue.push_line(6, std::string(half, 'x')));
}

TEST(log_queue, takes_one_line_of_any_length_but_nothing_beside_it)
{
    log_queue queue;
    EXPECT_TRUE(queue.push_line(6, std::string(log_queue::max_bytes + 1, 'x')));
    EXPECT_FALSE(queue.push_line(6, "x"));
    EXPECT_EQ(queue.pop().text.size(), log_queue::max_bytes + 1);
    EXPECT_TRUE(queue.push_line(6, "x"));
    EXPECT_FALSE(queue.push_line(6, std::string(log_queue::max_bytes, 'x')));
}

TEST(log_queue, the_next_entry_knows_what_is_missing_before_it)
{
    log_queue queue;
    fill(queue);
    EXPECT_FALSE(queue.push_line(6, "lost"));
    queue.hold_back();
    EXPECT_EQ(queue.gap().lost, 2U);
    EXPECT_EQ(queue.gap().held_back, 1U);
    EXPECT_EQ(queue.pop().before.lost, 0U) << "it stood there before";
    EXPECT_TRUE(queue.push_line(6, "behind the gap"));
    EXPECT_EQ(queue.gap().lost, 0U);
    EXPECT_EQ(queue.gap().held_back, 0U);
    for (size_t i = 0; i + 1 < log_queue::max_lines; ++i)
        EXPECT_EQ(queue.pop().before.lost, 0U);
    const log_entry behind = queue.pop();
    EXPECT_EQ(behind.text, "behind the gap");
    EXPECT_EQ(behind.before.lost, 2U);
    EXPECT_EQ(behind.before.held_back, 1U);
}

TEST(log_queue, marks_in_a_row_are_one)
{
    log_queue queue;
    queue.hold_back();
    queue.push_order(action::mark);
    queue.hold_back();
    queue.push_order(action::mark);
    queue.push_order(action::mark);
    EXPECT_EQ(queue.pushed(), 1U);
    const log_entry mark = queue.pop();
    EXPECT_EQ(mark.what, action::mark);
    EXPECT_EQ(mark.before.held_back, 2U);
    EXPECT_TRUE(queue.is_empty());
    EXPECT_EQ(queue.gap().held_back, 0U);
}

TEST(log_queue, tells_of_lines_without_memory_where_they_are_missing)
{
    log_queue queue;
    queue.lose();
    queue.lose();
    EXPECT_EQ(queue.gap().unstored, 2U);
    EXPECT_TRUE(queue.push_line(6, "behind the gap"));
    EXPECT_EQ(queue.gap().unstored, 0U);
    EXPECT_EQ(queue.pop().before.unstored, 2U);
    queue.push_order(action::mark);
    queue.lose();
    queue.push_order(action::mark);
    EXPECT_EQ(queue.pop().before.unstored, 1U);
}

TEST(log_queue, what_is_missing_at_the_end_is_told_without_memory)
{
    log_queue queue;
    queue.hold_back();
    queue.lose();
    const size_t allocations = allocations_of_this_thread();
    const log_entry mark = queue.end_gap();
    EXPECT_EQ(allocations_of_this_thread(), allocations);
    EXPECT_EQ(mark.what, action::mark);
    EXPECT_EQ(mark.before.held_back, 1U);
    EXPECT_EQ(mark.before.unstored, 1U);
    EXPECT_EQ(queue.pushed(), 1U) << "it counts as an entry that was followed";
    EXPECT_TRUE(queue.is_empty());
    EXPECT_EQ(queue.gap().held_back, 0U);
    EXPECT_EQ(queue.gap().unstored, 0U);
}

} // namespace
