#include "http/http_door.h"

#include "support/failing_new.h"
#include "support/free_port.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls {

TEST(http_door, stays_closed_when_memory_is_too_short_for_its_threads)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    responder pages{{}, ""};
    http_rules rules;
    rules.address = "127.0.0.1";
    rules.port = free_port();
    {
        http_door door{pages};
        fail_next_allocations(1);
        EXPECT_FALSE(door.open(rules));
        EXPECT_EQ(failures_left(), 0U);
    }
    EXPECT_THAT(log.messages("main"), testing::Contains("http: out of memory!"));
    http_door door{pages};
    EXPECT_TRUE(door.open(rules));
}

} // namespace rtls
