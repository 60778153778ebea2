#include "rtls-mqtt/commands.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <poll.h>

namespace mqtt {

using nlohmann::json;

// The first that comes.
static answer answer_to(commands& at, const order& what)
{
    at.give(what);
    for (;;) {
        pollfd entry{at.descriptor(), POLLIN, 0};
        if (::poll(&entry, 1, 20'000) != 1) {
            ADD_FAILURE() << "no answer";
            return {};
        }
        if (const auto answers = at.take_answers(); !answers.empty())
            return answers.front();
    }
}

TEST(commands, what_is_none_is_answered_as_unknown)
{
    commands nobody{{"127.0.0.1", 1}};
    const answer it = answer_to(nobody, {"explode", "\x1b\xff"});
    EXPECT_EQ(it.command, "unknown");
    const json told = json::parse(it.text);
    EXPECT_EQ(told["command"], "explode");
    EXPECT_EQ(told["done"], false);
    EXPECT_EQ(told["status"], 2);
    EXPECT_EQ(it.text.find('\x1b'), std::string::npos);
}

TEST(commands, what_no_terminal_would_take_is_not_sent)
{
    commands nobody{{"127.0.0.1", 1}};
    EXPECT_EQ(json::parse(answer_to(nobody, {"firmware-get", std::string(1'401, 'x')}).text)["why"],
              "it is too long");
    EXPECT_EQ(json::parse(answer_to(nobody, {"reboot", "1A2B\ndel 1A2B"}).text)["status"], 2);
    EXPECT_EQ(json::parse(answer_to(nobody, {"firmware-get", "http://a b"}).text)["status"], 2);
}

TEST(commands, a_terminal_that_is_not_there_is_told)
{
    commands nobody{{"127.0.0.1", 1}};
    const answer it = answer_to(nobody, {"reboot", "1A2B"});
    EXPECT_EQ(it.command, "reboot");
    const json told = json::parse(it.text);
    EXPECT_EQ(told["given"], "1A2B");
    EXPECT_EQ(told["done"], false);
    EXPECT_EQ(told["status"], 3);
}

} // namespace mqtt
