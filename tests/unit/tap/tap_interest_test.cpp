#include "tap/tap_interest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rtls {

namespace {

class interest : public testing::Test {
protected:
    tap_note note(const std::string& message, tap_voice by = tap_voice::peer)
    {
        return m_interest.note({reinterpret_cast<const uint8_t*>(message.data()), message.size()}, by);
    }
    void begin(const std::string& topic) { EXPECT_EQ(note('\1' + topic), tap_note::fine); }
    // What the library answers, and what others say.
    void end(const std::string& topic) { EXPECT_EQ(note('\0' + topic, tap_voice::answer), tap_note::fine); }
    tap_note asked_to_end(const std::string& topic, tap_voice by = tap_voice::peer)
    {
        return note('\0' + topic, by);
    }

    // "report link/in": the classes that somebody takes, by the beginnings of their topics.
    std::string taken() const
    {
        std::string all;
        for (size_t i = 0; i < tap_classes; ++i)
            if (m_interest.has(static_cast<tap_class>(i)))
                all += (all.empty() ? "" : " ") + std::string{tap_topics[i]};
        EXPECT_EQ(m_interest.has_any(), !all.empty());
        return all;
    }

    tap_interest m_interest;
};

} // namespace

TEST_F(interest, a_subscription_takes_the_classes_whose_topics_it_can_bring)
{
    const struct {
        const char* topic;
        const char* then;
    } cases[] = {
        {"", "report/ management command link/in/ link/out/ event"},
        {"r", "report/"},
        {"report", "report/"},
        {"report/", "report/"},
        {"report/02AB34CD56001A2B", "report/"},
        {"report/no MAC at all", "report/"},
        {"reports", ""},
        {"link", "link/in/ link/out/"},
        {"link/", "link/in/ link/out/"},
        {"link/i", "link/in/"},
        {"link/in/", "link/in/"},
        {"link/out/id-", "link/out/"},
        {"link/into", ""},
        {"event", "event"},
        {"event ", ""},
        {"management", "management"},
        {"command/", ""},
        {"Report/", ""},
    };
    EXPECT_EQ(taken(), "");
    for (const auto& c : cases) {
        begin(c.topic);
        EXPECT_EQ(taken(), c.then) << c.topic;
        EXPECT_EQ(m_interest.size(), 1U);
        end(c.topic);
        EXPECT_EQ(taken(), "") << c.topic;
        EXPECT_EQ(m_interest.size(), 0U);
    }
}

TEST_F(interest, a_class_is_taken_until_the_last_of_its_topics_has_gone)
{
    begin("report/A");
    begin("");
    begin("report/B");
    end("report/A");
    EXPECT_EQ(taken(), "report/ management command link/in/ link/out/ event");
    end("");
    EXPECT_EQ(taken(), "report/");
    end("report/B");
    EXPECT_EQ(taken(), "");
}

TEST_F(interest, the_end_of_what_was_never_begun_ends_nothing)
{
    begin("report/A");
    end("report/");
    end("event");
    EXPECT_EQ(taken(), "report/");
    begin("report/A"); // the same peer again, or another: the library tells the last one's end
    end("report/A");
    EXPECT_EQ(taken(), "");
    end("report/A");
    EXPECT_EQ(taken(), "");
    begin("report/A");
    EXPECT_EQ(taken(), "report/");
}

TEST_F(interest, what_is_no_subscription_is_foul)
{
    for (const char* message : {"", "\2report/", "report/", "hello", "\xFF"})
        EXPECT_EQ(note(message), tap_note::foul) << message;
    EXPECT_EQ(taken(), "");
    EXPECT_EQ(m_interest.size(), 0U);
}

TEST_F(interest, what_somebody_ends_is_taken_until_the_library_answers_that_it_is_over)
{
    for (const tap_voice by : {tap_voice::peer, tap_voice::unknown}) {
        begin("event");
        EXPECT_EQ(asked_to_end("event", by), tap_note::doubtful_end);
        EXPECT_EQ(taken(), "event");
        end("event");
        EXPECT_EQ(taken(), "");
    }
    EXPECT_EQ(asked_to_end("event"), tap_note::foul) << "nobody has it";
    EXPECT_EQ(asked_to_end("event", tap_voice::unknown), tap_note::fine) << "nobody to be cut off";
}

TEST_F(interest, the_library_is_asked_once_until_it_has_answered)
{
    begin("event");
    EXPECT_EQ(asked_to_end("event"), tap_note::doubtful_end);
    EXPECT_EQ(asked_to_end("event"), tap_note::fine);
    EXPECT_EQ(asked_to_end("event", tap_voice::unknown), tap_note::fine);
    m_interest.settle("event"); // somebody has it
    m_interest.settle("report/");
    EXPECT_EQ(taken(), "event");
    EXPECT_EQ(asked_to_end("event"), tap_note::doubtful_end);
}

TEST_F(interest, a_topic_that_is_too_long_is_foul_but_taken)
{
    const std::string longest = "report/" + std::string(tap_interest::longest_topic - 7, '0');
    EXPECT_EQ(note('\1' + longest), tap_note::fine);
    EXPECT_EQ(note('\1' + longest + '0'), tap_note::foul);
    end(longest);
    EXPECT_EQ(taken(), "report/") << "as long as the library has it";
    end(longest + '0');
    EXPECT_EQ(taken(), "");
}

TEST_F(interest, one_topic_too_many_is_foul_but_taken)
{
    for (size_t i = 0; i < tap_interest::most_topics; ++i)
        begin(std::to_string(i));
    EXPECT_EQ(taken(), "");
    EXPECT_EQ(note("\1"
                   "event"),
              tap_note::foul);
    EXPECT_EQ(taken(), "event");
    end("0");
    EXPECT_EQ(note("\1"
                   "event"),
              tap_note::fine)
        << "known";
    EXPECT_EQ(note("\1"
                   "more"),
              tap_note::foul);
}

TEST_F(interest, nothing_is_left_of_it_when_it_is_cleared)
{
    begin("");
    begin("event");
    m_interest.clear();
    EXPECT_EQ(taken(), "");
    EXPECT_EQ(m_interest.size(), 0U);
    begin("event");
    end("event");
    EXPECT_EQ(taken(), "");
}

} // namespace rtls
