#include "common/completion.h"
#include "common/texts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tools {

using testing::HasSubstr;
using testing::Not;

static const described_command flat{"rtls-x",
                                    "",
                                    {{{"-n", "--count"}, "How [many]", {}, true, false},
                                     {{"--way"}, "Which: one", {"up", "down"}, true, false},
                                     {{"--json"}, "It's so", {}, false, false},
                                     {{}, "The recording", {}, true, true}},
                                    {}};

TEST(completion, has_each_option_and_its_choices)
{
    const std::string bash = completion(flat, "bash", "--completion");
    EXPECT_THAT(bash, HasSubstr("# Completion for bash, by: rtls-x --completion bash\n_rtls_x() {\n"));
    EXPECT_THAT(bash, HasSubstr("--way) COMPREPLY=($(compgen -W 'up down'"));
    EXPECT_THAT(bash, HasSubstr("words='-n --count --way --json' files=-f"));
    const std::string zsh = completion(flat, "zsh", "--completion");
    EXPECT_THAT(zsh, HasSubstr("--way) compadd -- up down; return"));
    EXPECT_THAT(zsh, HasSubstr("'--json:It'\\''s so'"));
    EXPECT_THAT(zsh, HasSubstr("files=1"));
}

TEST(completion, of_what_takes_no_file_offers_none)
{
    described_command program = flat;
    program.options.pop_back();
    EXPECT_THAT(completion(program, "bash", "completion"), Not(HasSubstr("files=-f")));
    EXPECT_THAT(completion(program, "zsh", "completion"), Not(HasSubstr("files=1")));
}

TEST(texts, show_nothing_that_moves_the_cursor)
{
    const struct {
        const char* given;
        std::string text;
        std::string then;
    } cases[] = {
        {"plain text", "a ~", "a ~"},
        {"an escape", "\033[2J", "\\x1b[2J"},
        {"control characters", std::string{"\0\n\x7f", 3}, "\\x00\\x0a\\x7f"},
        {"UTF-8 of any length", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
         "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"a control character of two bytes", "\xc2\x9b", "\\xc2\\x9b"},
        {"bytes that are no character", "\xff\xc3(\xe2\x82", "\\xff\\xc3(\\xe2\\x82"},
        {"a longer form of one", "\xe0\x82\x9b\xf0\x80\x82\x9b", "\\xe0\\x82\\x9b\\xf0\\x80\\x82\\x9b"},
        {"half of a pair, and beyond the last", "\xed\xa0\x80\xf4\x90\x80\x80",
         "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(printable(c.text), c.then) << c.given;
    EXPECT_EQ(text_width("caf\xc3\xa9"), 4u);
}

TEST(texts, of_json_have_no_control_characters)
{
    const nlohmann::json given{{"a\xc2\x9b", "\x1b\x7f\xff\xc3\xa9"}};
    EXPECT_EQ(json_text(given), "{\"a\\u009b\":\"\\u001b\\u007f\xef\xbf\xbd\xc3\xa9\"}");
}

} // namespace tools
