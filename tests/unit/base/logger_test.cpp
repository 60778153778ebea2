#include "base/logger.h"

#include "base/common.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <string>

namespace rtls {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

TEST(logger, there_is_none_before_the_start_and_after_the_end)
{
    EXPECT_EQ(g_logger_ctx, nullptr);
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(logger_init("rtls-gateway"));
        EXPECT_NE(g_logger_ctx, nullptr);
        EXPECT_NE(g_logger, nullptr);
        ASSERT_NE(g_logger_section, nullptr);
        for (int section = 0; section < DBG_SECTIONS_NUMBER; ++section)
            EXPECT_NE(g_logger_section[section], nullptr);
        logger_cleanup();
        EXPECT_EQ(g_logger_ctx, nullptr);
        EXPECT_EQ(g_logger, nullptr);
        EXPECT_EQ(g_logger_section, nullptr);
        logger_cleanup();
    }
}

TEST(logger, fails_without_a_name)
{
    EXPECT_FALSE(logger_init(nullptr));
    logger_cleanup();
    EXPECT_EQ(g_logger_ctx, nullptr);
}

TEST(logger, fails_without_descriptors_for_its_socket)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer itself opens a file when an exception is thrown";
#endif
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    testing::internal::CaptureStderr();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool created = logger_init("rtls-gateway");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(created);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("logger_init: out of memory!\n"));
    logger_cleanup();
    EXPECT_TRUE(logger_init("rtls-gateway")) << "it can be tried again";
    logger_cleanup();
}

TEST(logger, every_section_has_its_own_name_in_nine_columns)
{
    log_capture log;
    const char* const prefixes[DBG_SECTIONS_NUMBER] = {
        "&rtls-gateway:raw       ", "&rtls-gateway:parsing   ", "&rtls-gateway:terminal  ",
        "&rtls-gateway:win       ", "&rtls-gateway:discovery ", "&rtls-gateway:develop   ",
        "&rtls-gateway:ul_tdoa   ",
    };
    for (size_t section = 0; section < DBG_SECTIONS_NUMBER; ++section) {
        logger_debug_ts(g_logger_section[section], {1714568822, 45}, "%s", "text");
        EXPECT_THAT(log.take(), ElementsAre(std::string(prefixes[section]) + "2024-05-01 13:07:02.045 text"));
    }
    logger_error(g_logger, "text");
    EXPECT_THAT(log.take(),
                ElementsAre(testing::AllOf(StartsWith("&rtls-gateway:main 20"), EndsWith(" text"))));
}

TEST(log_capture, sorts_records_by_component_and_hands_each_out_once)
{
    log_capture log;
    EXPECT_THAT(log.take(), IsEmpty());
    logger_info(g_logger, "one");
    logger_debug(g_logger_section[DBG_RAW], "two");
    logger_info(g_logger, "    three");
    EXPECT_THAT(log.messages("main"), ElementsAre("one", "    three"));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_THAT(log.messages("raw"), ElementsAre("two"));
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_FALSE(log.wait_for("four", std::chrono::milliseconds(0)));
    logger_info(g_logger, "the four");
    EXPECT_TRUE(log.wait_for("four"));
    EXPECT_TRUE(log.wait_for("four"));
    EXPECT_THAT(log.messages("main"), ElementsAre("the four"));
}

} // namespace rtls
