// What the library does while the system log takes no lines, or more come than it may have.

#include "core/clogger.h"

#include "impl/clogger.h"
#include "impl/log_queue.h"
#include "support/socket_options.h"
#include "support/syslog_capture.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr auto patience = seconds(10);

class unread_log : public testing::Test {
protected:
    unread_log() { EXPECT_THAT(texts(), ElementsAre("Starting app")); }
    ~unread_log() override
    {
        syslog_capture::read_again();
        destroy();
    }

    std::vector<std::string> texts()
    {
        EXPECT_TRUE(logger_flush(m_logger, 10'000));
        return syslog_capture::take_texts();
    }

    // The thread stands in syslog, with this line.
    void get_stuck(syslog_capture::stuck how = syslog_capture::stuck::cancellable)
    {
        syslog_capture::stop_reading(how);
        logger_info(m_main, "stuck");
        syslog_capture::wait_until_stuck();
    }

    // Until the first line is held back.
    void flood()
    {
        for (int i = 0; i < 100'000 && counters().held_back == 0; ++i)
            logger_info(m_main, "flood");
        EXPECT_EQ(counters().held_back, 1U);
    }

    void destroy()
    {
        destroy_component_logger(m_main);
        destroy_logger(m_logger);
        m_main = nullptr;
        m_logger = nullptr;
    }

    tav_log_counters counters() { return logger_get_counters(m_logger); }

    const std::vector<std::string> m_of_earlier_tests = syslog_capture::take_texts();
    tav_logger m_logger = create_logger("app");
    tav_component_logger m_main = create_component_logger(m_logger, "main");
};

// How long the action takes. One that does not come back lets the log be read again, and fails.
milliseconds time_of(const std::function<void()>& action)
{
    const auto begin = steady_clock::now();
    auto done = std::async(std::launch::async, action);
    if (done.wait_for(patience) == std::future_status::timeout) {
        ADD_FAILURE() << "waits for the system log";
        syslog_capture::read_again();
        done.wait();
    }
    return std::chrono::ceil<milliseconds>(steady_clock::now() - begin);
}

bool has_held_back(const std::vector<syslog_capture::captured_line>& lines)
{
    return std::ranges::any_of(
        lines, [](const auto& line) { return line.text.find("held back") != line.text.npos; });
}

TEST_F(unread_log, holds_up_nobody_and_loses_nothing_that_has_room)
{
    get_stuck();
    (void)time_of([this] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([this] {
                for (int line = 0; line < 100; ++line) {
                    logger_info(m_main, "%d", line);
                    logger_debug(m_main, "%d", line);
                    EXPECT_FALSE(logger_debug_is_wanted(m_main));
                }
            });
        for (auto& thread : threads)
            thread.join();
    });
    EXPECT_FALSE(logger_flush(m_logger, 0));
    syslog_capture::read_again();
    EXPECT_EQ(texts().size(), 401U);
    EXPECT_EQ(counters().lost, 0U);
}

TEST_F(unread_log, lines_without_room_are_lost_counted_and_said)
{
    constexpr size_t lines_that_fit = 8;
    const std::string long_text(tav::libs::core::log_queue::max_bytes / lines_that_fit, 'x');
    const auto log_long = [&] { logger_info(m_main, "%s", long_text.c_str()); };
    get_stuck();
    for (size_t i = 0; i < lines_that_fit + 3; ++i)
        log_long();
    EXPECT_EQ(counters().queued, 2 + lines_that_fit);
    EXPECT_EQ(counters().written, 1U);
    EXPECT_EQ(counters().lost, 3U);
    syslog_capture::read_again();
    ASSERT_TRUE(syslog_capture::wait_for([](const auto& lines) {
        return lines.size() == 2 + lines_that_fit;
    })) << "said without being asked";
    logger_error(m_main, "as ever");
    EXPECT_TRUE(logger_flush(m_logger, 10'000));
    const auto lines = syslog_capture::take();
    ASSERT_EQ(lines.size(), 3 + lines_that_fit);
    EXPECT_EQ(lines.at(lines_that_fit).text, long_text);
    EXPECT_EQ(lines.at(lines_that_fit + 1),
              (syslog_capture::captured_line{"app", 0, LOG_USER, LOG_WARNING,
                                             "Log lines lost while the system log took none: 3"}));
    EXPECT_EQ(lines.at(lines_that_fit + 2).text, "as ever");
    EXPECT_EQ(counters().written, counters().queued);
}

TEST_F(unread_log, lost_lines_are_said_where_they_are_missing)
{
    const std::string all_there_is(tav::libs::core::log_queue::max_bytes, 'x');
    get_stuck();
    logger_info(m_main, "%s", all_there_is.c_str());
    logger_info(m_main, "lost");
    logger_info(m_main, "%s", ""); // needs no room
    logger_info(m_main, "lost");
    logger_info(m_main, "lost");
    logger_info(m_main, "%s", "");
    syslog_capture::read_again();
    EXPECT_THAT(texts(),
                ElementsAre("stuck", all_there_is, "Log lines lost while the system log took none: 1", "",
                            "Log lines lost while the system log took none: 2", ""));
}

TEST_F(unread_log, does_not_hold_up_the_end_and_is_let_go_of)
{
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "the sanitizer takes a thread that is cancelled inside libc for its own fault";
#endif
#endif
    get_stuck();
    logger_info(m_main, "given up");
    EXPECT_LT(time_of([this] { destroy(); }), seconds(5));
    EXPECT_THAT(syslog_capture::take_texts(), IsEmpty());
    (void)time_of([] {
        EXPECT_EQ(setlogmask(0), 0x7F) << "libc's lock is free";
        EXPECT_FALSE(syslog_capture::is_open());
    });
    syslog_capture::read_again();
    m_logger = create_logger("next");
    EXPECT_THAT(texts(), ElementsAre("Starting next"));
}

TEST_F(unread_log, does_not_hold_up_what_is_left_for_the_broker)
{
    get_stuck();
    const int closed = socket_options::closed_number();
    auto end = std::async(std::launch::async, [this] { destroy(); });
    EXPECT_TRUE(socket_options::wait_for_closing(closed)) << "from then on it leaves, or lingers";
    EXPECT_TRUE(end.wait_for(milliseconds(0)) == std::future_status::timeout)
        << "the log is still waited for";
    syslog_capture::read_again();
    end.wait();
    EXPECT_THAT(syslog_capture::take_texts(), ElementsAre("stuck"));
}

TEST_F(unread_log, does_not_hold_up_the_end_even_where_libc_cannot_be_left)
{
    get_stuck(syslog_capture::stuck::for_good);
    logger_info(m_main, "given up");
    EXPECT_LT(time_of([this] { destroy(); }), seconds(5));
    EXPECT_LT(time_of([this] {
                  m_logger = create_logger("next"); // its thread waits, it does not
                  m_main = create_component_logger(m_logger, "main");
                  logger_info(m_main, "%s", "in time");
                  EXPECT_FALSE(logger_debug_is_wanted(m_main));
              }),
              seconds(5));
    syslog_capture::read_again();
    EXPECT_TRUE(logger_flush(m_logger, 10'000));
    const auto lines = syslog_capture::take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines.at(0).identity, "app");
    EXPECT_EQ(lines.at(0).text, "stuck");
    EXPECT_EQ(lines.at(1).identity, "next");
    EXPECT_EQ(lines.at(1).text, "Starting next");
    EXPECT_EQ(lines.at(2).text, "in time");
}

TEST_F(unread_log, a_thread_left_behind_touches_nothing_that_is_gone)
{
    get_stuck(syslog_capture::stuck::for_good);
    logger_info(m_main, "given up");
    (void)time_of([this] { destroy(); });
    EXPECT_TRUE(syslog_capture::is_open());
    syslog_capture::read_again();
    EXPECT_TRUE(syslog_capture::wait_for([](const auto& lines) { return lines.size() == 1; }));
    EXPECT_TRUE(rtls::wait_until([] { return !syslog_capture::is_open(); })) << "it closes the log";
    EXPECT_THAT(syslog_capture::take_texts(), ElementsAre("stuck")) << "and what was given up stays so";
}

TEST_F(unread_log, the_last_lines_are_written_before_the_logger_is_gone)
{
    for (int i = 0; i < 500; ++i)
        logger_info(m_main, "%d", i);
    destroy();
    const auto texts = syslog_capture::take_texts();
    ASSERT_EQ(texts.size(), 500U);
    EXPECT_EQ(texts.back(), "499");
}

TEST_F(unread_log, a_thousand_lines_of_a_second_pass_and_the_others_are_said)
{
    constexpr size_t sent = 1500;
    const auto begin = steady_clock::now();
    for (size_t i = 0; i < sent; ++i)
        logger_info(m_main, "flood %zu", i);
    logger_error(m_main, "not of the flood");
    const bool is_one_second = steady_clock::now() - begin < seconds(1);
    ASSERT_TRUE(syslog_capture::wait_for([](const auto& lines) { return has_held_back(lines); }));
    const auto lines = texts();
    const uint64_t held_back = counters().held_back;
    EXPECT_EQ(counters().lost, 0U);
    EXPECT_EQ(counters().queued + held_back, sent + 2);
    if (is_one_second) { // always, unless the machine stands still
        ASSERT_EQ(lines.size(), 1001U);
        EXPECT_EQ(lines.at(998), "flood 998") << "the first line of the second was another";
        EXPECT_EQ(lines.at(999), "Log lines held back beyond 1000 in a second: 501");
        EXPECT_EQ(lines.at(1000), "not of the flood");
    }
}

TEST_F(unread_log, the_end_of_a_flood_is_said_without_being_asked)
{
    flood();
    EXPECT_TRUE(syslog_capture::wait_for(has_held_back));
}

TEST_F(unread_log, the_end_of_the_program_says_what_was_held_back)
{
    flood();
    destroy();
    EXPECT_EQ(syslog_capture::take_texts().back(), "Log lines held back beyond 1000 in a second: 1");
}

TEST_F(unread_log, what_is_said_of_missing_lines_is_dated_while_debugging)
{
    m_logger->m_logger.set_debug(true);
    flood();
    EXPECT_THAT(texts().back(),
                testing::MatchesRegex(
                    "20[0-9-]{8} [0-9:]{8}.[0-9]{3} Log lines held back beyond 1000 in a second: 1"));
}

TEST_F(unread_log, debug_records_that_the_mask_keeps_out_do_not_count)
{
    const auto before = counters();
    for (int i = 0; i < 2000; ++i)
        logger_debug(m_main, "%d", i);
    EXPECT_EQ(counters().queued, before.queued);
    EXPECT_EQ(counters().held_back, 0U);
    setlogmask(LOG_UPTO(LOG_DEBUG));
    logger_debug(m_main, "counts");
    EXPECT_EQ(counters().queued, before.queued + 1);
}

TEST_F(unread_log, null_has_no_lines)
{
    EXPECT_FALSE(logger_flush(nullptr, 1));
    EXPECT_EQ(logger_get_counters(nullptr).queued, 0U);
}

TEST_F(unread_log, debugging_begins_and_ends_between_two_lines)
{
    get_stuck();
    logger_info(m_main, "before");
    auto changing = std::async(std::launch::async, [this] { m_logger->m_logger.set_debug(true); });
    EXPECT_TRUE(changing.wait_for(patience) == std::future_status::ready) << "it waits, but not for ever";
    logger_info(m_main, "after");
    syslog_capture::read_again();
    EXPECT_TRUE(logger_flush(m_logger, 10'000));
    const auto lines = syslog_capture::take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines.at(1).options, 0);
    EXPECT_EQ(lines.at(2).options, LOG_PERROR);
}

// The ends of what /proc says of the library's thread.
std::string status_of_log_thread(const std::string& field)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        std::string line;
        std::getline(status, line);
        if (line != "Name:\trtls-log")
            continue;
        while (std::getline(status, line))
            if (line.starts_with(field))
                return line.substr(line.find('\t') + 1);
    }
    return "no such thread";
}

TEST_F(unread_log, its_thread_takes_no_signals)
{
    const std::string blocked = status_of_log_thread("SigBlk:");
    const uint64_t mask = std::stoull(blocked, nullptr, 16);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGALRM, SIGUSR1, SIGCHLD})
        EXPECT_TRUE((mask >> (signal - 1) & 1) != 0) << signal;
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_FALSE(sigismember(&own, SIGTERM)) << "the caller's stay as they are";
    destroy();
    EXPECT_EQ(status_of_log_thread("SigBlk:"), "no such thread");
}

TEST_F(unread_log, the_child_of_a_fork_does_not_wait_for_a_thread_that_it_has_not)
{
    get_stuck();
    const pid_t child = fork();
    if (child == 0) {
        logger_info(m_main, "dropped");
        const bool is_flushed = logger_flush(m_logger, 100'000);
        m_logger->m_logger.set_debug(true);
        _exit(is_flushed ? 1 : 0);
    }
    int status = -1;
    (void)time_of([&] { waitpid(child, &status, 0); });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    syslog_capture::read_again();
    EXPECT_THAT(texts(), ElementsAre("stuck"));
}

} // namespace
