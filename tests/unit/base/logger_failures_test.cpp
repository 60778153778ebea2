// What the system log is told where the loggers cannot be made. Stand-ins take the calls of libc's functions
// for it, and let allocations fail.
#include "base/logger.h"
#include "support/allocation_count.h"
#include "support/socket_options.h"
#include "support/syslog_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace rtls {

using syslog_capture::captured_line;
using testing::ElementsAre;

namespace {

const captured_line starting{"rtls-gateway", 0, LOG_USER, LOG_INFO, "Starting rtls-gateway"};
const captured_line short_memory{"rtls-gateway", 0, LOG_USER, LOG_ERR, "logger_init: out of memory!"};

class logger_failures : public testing::Test {
protected:
    void SetUp() override
    {
        if (!allocations_can_fail())
            GTEST_SKIP() << "the sanitizer owns the operators";
    }
    ~logger_failures() override
    {
        syslog_capture::read_again();
        logger_cleanup();
        (void)syslog_capture::take();
    }

    // With this allocation failing, counted from when the logger's socket is there: libzmq itself would end
    // the program. Whether there was one, and the loggers could not be made.
    static bool fails_at(size_t allocation)
    {
        socket_options::on_next_linger([allocation] { fail_allocation_after(allocation); });
        const bool made = logger_init("rtls-gateway");
        const bool was_short = !cancel_failing_allocation();
        EXPECT_NE(made, was_short) << "allocation " << allocation;
        return was_short;
    }

    // The first allocation without which there is a logger, but no component's.
    static size_t first_of_a_component()
    {
        for (size_t allocation = 0; fails_at(allocation); ++allocation) {
            const bool is_it = g_logger_ctx && !g_logger;
            logger_cleanup();
            (void)syslog_capture::take();
            if (is_it)
                return allocation;
        }
        ADD_FAILURE() << "there is none";
        return 0;
    }
};

TEST_F(logger_failures, each_is_one_line_behind_those_that_wait)
{
    size_t without_logger = 0;
    size_t without_component = 0;
    size_t without_sections = 0;
    for (size_t allocation = 0; fails_at(allocation); ++allocation) {
        SCOPED_TRACE(testing::Message() << "allocation " << allocation);
        if (!g_logger_ctx) {
            ++without_logger;
            const captured_line by_libc{"rtls-gateway", LOG_PERROR, LOG_USER, LOG_ERR, short_memory.text};
            EXPECT_THAT(syslog_capture::take(), ElementsAre(by_libc));
            EXPECT_EQ(syslog_capture::mask(), 0xFF);
        } else {
            ++(g_logger ? without_sections : without_component);
            EXPECT_TRUE(logger_flush(g_logger_ctx, 10'000));
            EXPECT_THAT(syslog_capture::take(), ElementsAre(starting, short_memory));
        }
        logger_cleanup();
    }
    EXPECT_GT(without_logger, 0U);
    EXPECT_GT(without_component, 0U);
    EXPECT_GT(without_sections, 0U);
}

TEST_F(logger_failures, a_system_log_that_nobody_reads_holds_up_no_start)
{
    const size_t allocation = first_of_a_component();
    syslog_capture::stop_reading();
    auto failed = std::async(std::launch::async, fails_at, allocation);
    if (failed.wait_for(std::chrono::seconds(10)) == std::future_status::timeout) {
        ADD_FAILURE() << "waits for the system log";
        syslog_capture::read_again();
    }
    EXPECT_TRUE(failed.get());
}

} // namespace

} // namespace rtls
