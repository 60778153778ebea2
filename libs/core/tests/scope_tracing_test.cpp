#include "impl/logger.h"
#include "impl/version.h"
#include "support/broker.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using tav::libs::core::component_logger;
using tav::libs::core::execute_on_scope_exit;
using tav::libs::core::logger;
using tav::libs::core::scope_guard_ptr;
using tav::libs::core::source_location;
using tav::libs::core::constants::source_directory;

namespace {

class scope_tracing : public testing::Test {
protected:
    scope_tracing()
    {
        m_logger.connect(m_broker.endpoint());
        EXPECT_EQ(m_broker.next_undated(), "&app:logger DATE Connected to socket");
    }

    std::string next() { return m_broker.next_undated(); }

    broker m_broker;
    logger m_logger{"app", "logger"};
    std::unique_ptr<component_logger> m_component = m_logger.component("main");
    std::string m_file = std::string(source_directory) + "/src/a.cpp";
    source_location m_here{42, m_file, "void tav::a::f(tav::b)"};
};

TEST_F(scope_tracing, each_form_writes_its_own_entry_record_and_indents_what_follows)
{
    const struct {
        const char* given;
        scope_guard_ptr (*enter)(const component_logger&, const source_location&);
        const char* then;
    } cases[] = {
        {"a function", [](const auto& log, const auto& at) { return log.enter_function(at); },
         "&app:main DATE void tav::a::f(tav::b)"},
        {"a function, short",
         [](const auto& log, const auto& at) { return log.enter_function_short(at, "text"); },
         "&app:main DATE tav::a::f: text"},
        {"a place", [](const auto& log, const auto& at) { return log.enter_scope(at); },
         "&app:main DATE /src/a.cpp:42"},
        {"a text", [](const auto& log, const auto&) { return log.enter_scope("100% %1%"); },
         "&app:main DATE 100% %1%"},
        {"a place and a text", [](const auto& log, const auto& at) { return log.enter_scope(at, "text"); },
         "&app:main DATE /src/a.cpp:42 (text)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        {
            const scope_guard_ptr guard = c.enter(*m_component, m_here);
            EXPECT_EQ(next(), c.then);
            m_component->info("inside");
            EXPECT_EQ(next(), "&app:main DATE     | inside");
        }
        m_component->info("outside");
        EXPECT_EQ(next(), "&app:main DATE outside");
    }
}

TEST_F(scope_tracing, depth_follows_the_nesting_with_one_bar)
{
    const scope_guard_ptr outer = m_component->enter_scope("outer");
    {
        const scope_guard_ptr inner = m_component->enter_scope("inner");
        m_component->info("deep");
        EXPECT_EQ(next(), "&app:main DATE outer");
        EXPECT_EQ(next(), "&app:main DATE     | inner");
        EXPECT_EQ(next(), "&app:main DATE         | deep");
    }
    m_component->info("less deep");
    EXPECT_EQ(next(), "&app:main DATE     | less deep");
}

TEST_F(scope_tracing, components_have_their_own_depth)
{
    const auto other = m_logger.component("other");
    const scope_guard_ptr guard = m_component->enter_scope("scope");
    other->info("flat");
    m_logger.info("flat, too");
    EXPECT_EQ(next(), "&app:main DATE scope");
    EXPECT_EQ(next(), "&app:other DATE flat");
    EXPECT_EQ(next(), "&app:logger DATE flat, too");
}

TEST_F(scope_tracing, optional_parts_stand_in_front_of_the_message_in_their_order)
{
    m_component->info("%1% and %2%").short_function(m_here).location(m_here) % "this" % 2;
    EXPECT_EQ(next(), "&app:main DATE /src/a.cpp:42 tav::a::f: this and 2");
    m_component->info("text").function(m_here);
    EXPECT_EQ(next(), "&app:main DATE void tav::a::f(tav::b): text");
    m_component->info("text").date_time({0, 5});
    EXPECT_EQ(m_broker.next(), "&app:main 1970-01-01 00:00:00.005 text");
}

TEST_F(scope_tracing, an_unheard_entry_still_indents)
{
    m_logger.set_writing_to_socket(false);
    const scope_guard_ptr guard = m_component->enter_scope("unheard");
    m_logger.set_writing_to_socket(true);
    m_component->info("heard");
    EXPECT_EQ(next(), "&app:main DATE     | heard");
}

TEST(scope_guard, runs_its_action_once_on_every_way_out)
{
    int runs = 0;
    {
        scope_guard_ptr guard = execute_on_scope_exit([&runs] { ++runs; });
        const scope_guard_ptr owner = std::move(guard);
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 1);
    try {
        const scope_guard_ptr guard = execute_on_scope_exit([&runs] { ++runs; });
        EXPECT_NE(guard, nullptr);
        throw std::runtime_error("on the way out");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(runs, 2);
    }
    EXPECT_EQ(runs, 2);
}

TEST(scope_guard, takes_actions_that_can_only_be_moved)
{
    int result = 0;
    (void)execute_on_scope_exit([value = std::make_unique<int>(7), &result] { result = *value; });
    EXPECT_EQ(result, 7);
}

TEST_F(scope_tracing, threads_format_at_once)
{
    constexpr int threads_number = 4;
    constexpr int records_each = 50;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threads_number; ++thread)
        threads.emplace_back([this] {
            for (int i = 0; i < records_each; ++i)
                m_component->info("%1% of %2$04d") % "one" % 12;
        });
    for (auto& thread : threads)
        thread.join();
    for (int i = 0; i < threads_number * records_each; ++i)
        ASSERT_EQ(next(), "&app:main DATE one of 0012");
}

using formatter_death = scope_tracing;

TEST_F(formatter_death, a_pattern_that_does_not_fit_ends_the_process)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(m_component->info("%1% %2%") % 1, "too_few_args");
}

} // namespace
