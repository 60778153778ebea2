#include "tap/tap_interest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rtls {

namespace {

class interest : public testing::Test {
protected:
    void note(const std::string& message)
    {
        m_interest.note({reinterpret_cast<const uint8_t*>(message.data()), message.size()});
    }
    void begin(const std::string& topic) { note('\1' + topic); }
    void end(const std::string& topic) { note('\0' + topic); }

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

TEST_F(interest, what_is_no_subscription_is_left_out)
{
    for (const char* message : {"", "\2report/", "report/", "hello"})
        note(message);
    EXPECT_EQ(taken(), "");
    m_interest.note({});
    EXPECT_EQ(m_interest.size(), 0U);
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
