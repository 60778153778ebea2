#include "base/tokenize.h"

#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rtls {

using testing::ElementsAre;

TEST(tokenize, cuts_a_line_at_blanks_tabs_and_line_ends)
{
    using words = std::vector<std::string>;
    using namespace std::string_literals;
    const struct {
        const char* given;
        std::string line;
        uint16_t max_arguments;
        words tokens;
        std::string left; // the whole line afterwards
    } cases[] = {
        {"an empty line", "", 4, {}, ""},
        {"separators alone", " \t\r\n", 4, {}, " \t\r\n"},
        {"one word", "pn", 4, {"pn"}, "pn"},
        {"each separator", "a b\tc\rd\n", 9, {"a", "b", "c", "d"}, "a\0b\0c\0d\0"s},
        {"many separators", " \t a \r\n b", 9, {"a", "b"}, " \t a\0\r\n b"s},
        {"other blanks are part of a word", "a\vb\fc", 9, {"a\vb\fc"}, "a\vb\fc"},
        {"more words than wanted", "  set  debug win\r\n", 2, {"set", "debug"}, "  set\0 debug\0win\r\n"s},
        {"separators behind the last word stay", "a b   c ", 2, {"a", "b"}, "a\0b\0  c "s},
        {"as many as wanted, at the end", "set debug", 2, {"set", "debug"}, "set\0debug"s},
        {"none wanted", " a b", 0, {}, " a b"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        std::string line = c.line;
        char guard = 'g';
        std::vector<char*> argv(c.max_arguments + 1U, &guard);
        uint16_t argc = 99;
        tokenize(line.data(), &argc, argv.data(), c.max_arguments);
        EXPECT_EQ(words(argv.begin(), argv.begin() + argc), c.tokens);
        EXPECT_EQ(line, c.left);
        for (size_t i = argc; i < argv.size(); ++i)
            EXPECT_EQ(argv[i], &guard);
    }
}

TEST(tokenize, stores_addresses_within_the_line)
{
    char line[] = " ab  c";
    char* argv[2];
    uint16_t argc = 0;
    tokenize(line, &argc, argv, 2);
    EXPECT_EQ(argv[0], line + 1);
    EXPECT_EQ(argv[1], line + 5);
}

} // namespace rtls
