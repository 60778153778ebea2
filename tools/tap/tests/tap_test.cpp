#include "tap/certificates.h"
#include "tap/failure.h"
#include "tap/running_numbers.h"

#include <gtest/gtest.h>

namespace tap {

using rtls::recording::message_class;

TEST(running_numbers, tell_gaps_and_restarts_of_each_class)
{
    running_numbers numbers{{}};
    EXPECT_EQ(numbers.note(message_class::report, 17).missed, 0u); // who comes later has missed nothing
    EXPECT_EQ(numbers.note(message_class::report, 18).missed, 0u);
    EXPECT_EQ(numbers.note(message_class::event, 3).missed, 0u);
    EXPECT_EQ(numbers.note(message_class::report, 21).missed, 2u);
    const auto step = numbers.note(message_class::report, 2);
    EXPECT_TRUE(step.has_restarted);
    EXPECT_EQ(step.missed, 1u);
    EXPECT_EQ(numbers.missed(message_class::report), 3u);
    EXPECT_EQ(numbers.missed(), 3u);
}

TEST(running_numbers, say_nothing_of_a_class_that_is_taken_in_part)
{
    running_numbers numbers{{"report/E4", "link/in/"}};
    for (const auto of : {message_class::report, message_class::link_in}) {
        numbers.note(of, 1);
        numbers.note(of, 5);
    }
    EXPECT_EQ(numbers.missed(message_class::report), 0u);
    EXPECT_EQ(numbers.missed(message_class::link_in), 3u);
}

TEST(running_numbers, have_sentences)
{
    const rtls::recording::tap_message message{"report/E4", {0, 0, 0, 17, 0}, {}};
    EXPECT_EQ(sentence_of({0, false}, message), "");
    EXPECT_EQ(sentence_of({1, false}, message), "report: 1 message is missing before number 17");
    EXPECT_EQ(sentence_of({16, true}, message),
              "report: the gateway counts from 1 again; 16 messages are missing before number 17");
}

TEST(certificates, what_is_none_is_refused)
{
    EXPECT_THROW(read_certificates({"/nowhere/own", "/nowhere/gateway"}), failure);
}

} // namespace tap
