#include "terminal/filter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace rtls {

static std::string repeated(const char* text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += text;
    return all;
}

TEST(affordable_pattern, what_operators_write)
{
    const std::string patterns[] = {
        "",
        "abc",
        "100%s",
        "(CONS|SLIP).*rcvd",
        "^.*IP [0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}:[0-9]+$",
        "([0-9a-f]{2} ){8}",
        "\\b(node|bridge)\\b",
        "[]abc]*[^]abc]+[[:alpha:]]?[[.a.]][[=a=]]",
        "[*+?{9999}{9999}(]",      // nothing in a set repeats
        "\\*{3}\\{9999\\{9999",    // nor does what is escaped
        "[[:digit:]{9999}{9999}]", // a class inside a set does not end it
        "a{300}",
        "a{1,300}",
        "a{300,}",
        "(a{256}){256}", // 65,536 times, the most
        "(a*)*",
        "(a|b)*c+",
        "(", // the compiler's business
        ")",
        "a{",
        "a{2",
        "a{,3}",
        "a{x}",
        "[abc",
        "[[:alpha",
        "\\",
        "*a",
        std::string(512, 'x'),
        repeated("(", 256) + repeated(")", 256),
    };
    for (const auto& pattern : patterns)
        EXPECT_TRUE(is_affordable_pattern(pattern)) << pattern;
}

TEST(affordable_pattern, what_takes_the_daemon_down)
{
    const std::string patterns[] = {
        std::string(513, 'x'), // too long
        "(a)\\1",              // back-references
        "(a*)\\1*b",
        "(a)\\9",
        "(a{256}){257}",                         // 65,792 times
        "((((a{1,100}){1,100}){1,100}){1,100})", // gigabytes
        "a{65537}",
        "a{99999999999999999999999999}",
        "a{1,32767}",    // gigabytes, too
        "(x*){1,32767}", // the whole stack
        "((x*){1,255}){1,255}",
        "x" + repeated("+", 30), // doubled thirty times
        repeated("(", 30) + "x" + repeated("+)", 30),
        repeated("(", 80) + "x" + repeated("*)", 80) + repeated("{2}", 8),
        "((((b)?|)?)+){2,20}(^()|([ab])+)+", // exponential in the repetitions of nothing
        "((^|\\b)+)*\\b",
        "b(((()){20,}){255})",
        "(\\b){9,16}((x|^))*",
        "(.()){257,800}^", // compiled at once, but matched for seconds
        "((\\w){128,}){3,8}[ab]^",
        std::string(400, 'x') + "(" + std::string(90, 'y') + "){20000}",
    };
    for (const auto& pattern : patterns)
        EXPECT_FALSE(is_affordable_pattern(pattern)) << pattern;
}

TEST(affordable_pattern, cut_at_every_byte)
{
    const std::string pattern = "(a[]b[:digit:]]{2,30}\\|(c|^)*\\bd+){12,}$\\";
    for (size_t size = 0; size <= pattern.size(); ++size) {
        const std::string part = pattern.substr(0, size); // of its own, so that overruns show
        (void)is_affordable_pattern(part);
    }
    EXPECT_TRUE(is_affordable_pattern(pattern.substr(0, 22)));
}

TEST(filter, matches_as_an_extended_expression)
{
    const regex_ptr filter{compile_filter("rcvd \"(pn|pnf)\"$")};
    ASSERT_TRUE(filter);
    EXPECT_EQ(regexec(filter.get(), "CONS: rcvd \"pnf\"", 0, nullptr, 0), 0);
    EXPECT_EQ(regexec(filter.get(), "CONS: rcvd \"pcl\"", 0, nullptr, 0), REG_NOMATCH);
}

TEST(filter, that_is_invalid_or_refused_is_null_without_an_error_number)
{
    for (const char* pattern : {"(", "[", "a{2,1}", "(a)\\1", "a{1,32767}"}) {
        errno = EBUSY;
        EXPECT_EQ(compile_filter(pattern), nullptr) << pattern;
        EXPECT_EQ(errno, 0) << pattern;
    }
}

} // namespace rtls
