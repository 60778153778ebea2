#include "terminal/filter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <memory>
#include <random>
#include <string>

namespace rtls {

struct filter_deleter {
    void operator()(regex_t* preg) const
    {
        regfree(preg);
        std::free(preg);
    }
};
using filter_ptr = std::unique_ptr<regex_t, filter_deleter>;

static std::string repeated(const char* text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += text;
    return all;
}

// What operators write, or try.
static const std::string affordable_patterns[] = {
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

// The seconds of processor time that compiling the pattern takes, and matching lines that give it a lot to
// try. Not those of the clock: the machine may be busy elsewhere.
static double cost_of(const std::string& pattern)
{
    const auto used = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const std::string lines[] = {std::string(2047, 'a'), std::string(2047, 'x'), repeated("ab ", 682),
                                 repeated("x1.", 682)}; // the longest lines of the debug stream
    const double start = used();
    if (const filter_ptr filter{compile_filter(pattern.c_str())})
        for (const auto& line : lines)
            (void)regexec(filter.get(), line.c_str(), 0, nullptr, 0);
    return used() - start;
}

TEST(affordable_pattern, what_operators_write)
{
    for (const auto& pattern : affordable_patterns)
        EXPECT_TRUE(is_affordable_pattern(pattern)) << pattern;
}

// Every line of the debug stream is matched on the terminal's thread, on which all operators wait.
TEST(affordable_pattern, costs_little_when_lines_are_matched)
{
    for (const auto& pattern : affordable_patterns)
        EXPECT_LT(cost_of(pattern), 4 * 0.5) << pattern;
}

TEST(affordable_pattern, is_any_that_costs_little_whatever_it_is_made_of)
{
    const char* const pieces[] = {"a",    "x",   ".",    "\\w",    "\\b",  "^",       "$",     "[ab]",
                                  "[^x]", "(",   "(",    ")",      ")",    "|",       "*",     "+",
                                  "?",    "{2}", "{3,}", "{2,20}", "{40}", "{1,200}", "(a|b)", "()"};
    std::mt19937 random{std::random_device{}()};
    const auto seed = static_cast<unsigned>(random());
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    random.seed(seed);
    const auto number = [&](size_t limit) {
        return std::uniform_int_distribution<size_t>{0, limit - 1}(random);
    };
    unsigned compiled = 0;
    for (int i = 0; i < 400; ++i) {
        std::string pattern;
        for (size_t count = 2 + number(14); count > 0; --count)
            pattern += pieces[number(std::size(pieces))];
        if (!is_affordable_pattern(pattern))
            continue;
        EXPECT_LT(cost_of(pattern), 4 * 0.5) << pattern;
        ++compiled;
    }
    EXPECT_GT(compiled, 50U); // enough of them to mean something
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
    const filter_ptr filter{compile_filter("rcvd \"(pn|pnf)\"$")};
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
