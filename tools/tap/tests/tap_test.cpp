#include "rtls-record/file_series.h"
#include "rtls-tail/filter.h"
#include "rtls-tail/link_stream.h"
#include "tap/completion.h"
#include "tap/failure.h"
#include "tap/running_numbers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tap {

using rtls::recording::message_class;
using testing::HasSubstr;
using bytes_t = std::vector<uint8_t>;

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

TEST(link_stream, finds_messages_however_they_are_cut)
{
    const bytes_t stream{9,    0xF5, 1,    0xF6, 0xF7, 2,    0xF7, 0xF7, 0xF6,
                         0xF5, 7,    0xF5, 0xF6, 0xF6, 0xF7, 0xF5, 0xF7};
    const std::vector<bytes_t> expected{{1, 0xF7, 2}, {0xF6}, {}};
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        tail::link_stream reader;
        auto found = reader.feed(rtls::bytes_view{stream}.first(cut));
        for (auto& message : reader.feed(rtls::bytes_view{stream}.subspan(cut)))
            found.push_back(message);
        EXPECT_EQ(found, expected) << cut;
    }
}

TEST(file_series, numbers_stand_before_the_ending)
{
    EXPECT_EQ(record::numbered_path("a.pcapng.zst", 7), "a-00007.pcapng.zst");
    EXPECT_EQ(record::numbered_path("/x.y/a", 7), "/x.y/a-00007");
    EXPECT_EQ(record::numbered_path("/x.y/.a", 12345), "/x.y/.a-12345");
}

TEST(filter, what_is_no_mac_is_refused)
{
    tail::filter wanted;
    wanted.macs = {"1A:2B"};
    wanted.settle();
    EXPECT_EQ(wanted.macs[0], "1a2b");
    wanted.macs = {"1A2"};
    EXPECT_THROW(wanted.settle(), failure);
    wanted.macs = {"node"};
    EXPECT_THROW(wanted.settle(), failure);
}

TEST(completion, has_each_option_and_its_choices)
{
    const described_program program{"rtls-x",
                                    {{{"-n", "--count"}, "How [many]", {}, true, false},
                                     {{"--way"}, "Which", {"up", "down"}, true, false},
                                     {{"--json"}, "It's so", {}, false, false}}};
    EXPECT_THAT(bash_completion(program), HasSubstr("--way) COMPREPLY=($(compgen -W 'up down'"));
    EXPECT_THAT(bash_completion(program), HasSubstr("'-n --count --way --json'"));
    EXPECT_THAT(zsh_completion(program), HasSubstr("'*--way[Which]:value:(up down)'"));
    EXPECT_THAT(zsh_completion(program), HasSubstr("'*--json[Its so]'"));
}

} // namespace tap
