#include "terminal/filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <random>
#include <string>

namespace rtls {

static std::string repeated(const std::string& text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += text;
    return all;
}

// Of this thread: a busy machine does not count.
static double cpu_ms()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Sanitized builds take some times longer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr double slower = 10;
#else
static constexpr double slower = 1;
#endif
static constexpr double compile_limit_ms = 500 * slower;
static constexpr double match_limit_ms = 8 * slower; // 2 on a machine that has nothing else to do

static const std::string nine_words =
    "\\<one\\>|\\<two\\>|\\<three\\>|\\<four\\>|\\<five\\>|\\<six\\>|\\<seven\\>|\\<eight\\>|\\<nine\\>";

static const std::string accepted[] = {
    "",
    "abc",
    "100%s",
    "(CONS|SLIP).*rcvd",
    "^.*IP [0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}:[0-9]+$",
    "([0-9a-f]{2} ){8}",
    "([0-9A-F]{2}){1,200}",
    "\\b(node|bridge)\\b",
    nine_words,
    "[]abc]*[^]abc]+[[:alpha:]]?",
    "[*+?{9999}{9999}(]",      // nothing in a set repeats
    "\\*{3}\\{9999\\{9999",    // nor does what is escaped
    "[[:digit:]{9999}{9999}]", // a class inside a set does not end it
    ".*[0-7].{255}!",
    "a{255}",
    "a{1,60}",
    "a{255,}",
    "(a*)*",
    "(a|b)*c+",
    "((a|b|c)?){6}!",
    "((.{1,3}){1,3})!",
    "((.{1,20}){1,20})", // what follows a match costs nothing
    "((){30}){30}",
    "((\\b\\b\\b)*){255}",
    "((^|\\b)+)*\\b",
    "a?{10}!",
    "[0-9a-f]{64}!",
    std::string(1000, 'x'),
    std::string(5000, 'x'),
    std::string(1000, 'x') + "|" + std::string(1000, 'y'),
    "(" + repeated("e45e5100000:00200|", 60) + "e45e5100000:00201)",
    "^(" + repeated("00200|", 40) + "00201) fix",
    std::string(250, '.'),
    repeated("(", 256) + repeated(")", 256),
    repeated("(", 256) + "a" + repeated(")*", 256),
    "x" + repeated("?", 100),
};

TEST(filter, what_is_accepted_costs_little)
{
    const std::string lines[] = {std::string(2047, '3'), std::string(2047, 'a'), repeated("a b", 682)};
    for (const auto& pattern : accepted) {
        const double begin = cpu_ms();
        const filter_ptr filter = compile_filter(pattern.c_str());
        ASSERT_TRUE(filter) << pattern;
        EXPECT_LT(cpu_ms() - begin, compile_limit_ms) << pattern;
        for (const auto& line : lines) {
            const double line_begin = cpu_ms();
            (void)passes(*filter, line.c_str());
            EXPECT_LT(cpu_ms() - line_begin, match_limit_ms) << pattern;
        }
    }
}

TEST(filter, a_line_of_many_different_ways_costs_little)
{
    std::string line;
    for (unsigned bits = 1; line.size() < 2000; bits = bits * 1'103'515'245 + 12'345)
        line += (bits >> 16 & 1) != 0 ? '3' : 'x';
    const filter_ptr filter = compile_filter(".*[0-7].{255}!");
    ASSERT_TRUE(filter);
    const double begin = cpu_ms();
    EXPECT_FALSE(passes(*filter, line.c_str()));
    EXPECT_LT(cpu_ms() - begin, match_limit_ms);
    EXPECT_TRUE(passes(*filter, (line + "3" + std::string(255, '.') + "!").c_str()));
}

// One that repeats, nests and chooses at random.
static std::string random_pattern(std::mt19937& random)
{
    const char* const pieces[] = {"[ax3]", ".", "[^b]", "\\w", "3", "x", "a", "|", "*", "?"};
    std::string pattern;
    int depth = 0;
    for (auto pieces_left = random() % 60; pieces_left > 0; --pieces_left) {
        const auto choice = random() % 13;
        if (choice < std::size(pieces)) {
            pattern += pieces[choice];
        } else if (choice == 10) {
            pattern += '{' + std::to_string(random() % 4) + ',' + std::to_string(4 + random() % 60) + '}';
        } else if (choice == 11 || depth == 0) {
            pattern += '(';
            ++depth;
        } else {
            pattern += ')';
            --depth;
        }
    }
    return pattern + repeated(")", depth) + (random() % 2 == 0 ? "!" : "");
}

TEST(filter, whatever_is_accepted_costs_little_for_any_line)
{
    const std::string lines[] = {std::string(2047, '3'), std::string(2047, 'a'), repeated("3xx3a", 409)};
    std::mt19937 random{20'26};
    int accepted_number = 0;
    for (int round = 0; round < 1500; ++round) {
        const std::string pattern = random_pattern(random);
        const filter_ptr filter = compile_filter(pattern.c_str());
        if (!filter)
            continue;
        ++accepted_number;
        for (const auto& line : lines) {
            double best = 1e9; // of two: the first may have met somebody else's work
            for (int again = 0; again < 2; ++again) {
                const double begin = cpu_ms();
                (void)passes(*filter, line.c_str());
                best = std::min(best, cpu_ms() - begin);
            }
            EXPECT_LT(best, match_limit_ms) << pattern;
        }
    }
    EXPECT_GT(accepted_number, 300);
}

TEST(filter, what_costs_too_much_is_refused_as_such)
{
    const std::string patterns[] = {
        ".*[0-7].{450}!",
        "a{256}",
        "a{99999999999999999999999999}",
        "(a{255}){255}",
        "((((a{1,100}){1,100}){1,100}){1,100})",
        "((a|b|c)?){255}!", // seconds a line
        "((.{1,255}){1,255})!",
        "(((){255}){255}){255}",
        "((\\b){255}){255}",
        "[acegikmoqsuwy]{255}",
        "((x*){1,255}){1,255}",
        repeated("a?", 200),
        "x" + repeated("{2}", 20),
        repeated("(", 30) + "x" + repeated("){1,9}", 30),
        repeated("(", 513) + repeated(")", 513),
        std::string(2000, '.'), // some milliseconds a line, as are those that follow
        "((a|b|c)?){20}!",
        "((.{1,20}){1,20})!",
        "([0-9A-F]{2}){1,200}!",
        "a?{30}!",
        "(a|b|c|d|e|f|g|h){40}!",
        "(" + repeated("a|", 54) + "a)*b",
        repeated("a*", 70) + "!",
        "(x*){1,50}!",
        repeated("xy", 2500) + ".", // the compiler's own bound
    };
    for (const auto& pattern : patterns) {
        const double begin = cpu_ms();
        errno = EBUSY;
        EXPECT_EQ(compile_filter(pattern.c_str()), nullptr) << pattern;
        EXPECT_EQ(errno, E2BIG) << pattern;
        EXPECT_LT(cpu_ms() - begin, compile_limit_ms) << pattern;
    }
}

TEST(filter, what_is_invalid_is_refused_as_such)
{
    for (const char* pattern :
         {"(",     "[",       "[a-",   "[[:alpha", "[[:nothing:]]", "[[:alpha:x]", "a{",        "a{2",
          "a{x}",  "a{~1}",   "a{,2}", "a{2,1}",   "a\\",           "(a)\\1",      "(a*)\\1*b", "(a)\\9",
          "(?i)a", "\\Q[\\E", ")",     "a)",       "(a))",          ")\\\\)9"}) {
        errno = EBUSY;
        EXPECT_EQ(compile_filter(pattern), nullptr) << pattern;
        EXPECT_EQ(errno, EINVAL) << pattern;
    }
}

TEST(filter, patterns_cut_at_every_byte_do_no_harm)
{
    const std::string pattern = "(a[]b[:digit:]]{2,30}\\|(c|^)*\\bd+){12,}$\\";
    for (size_t size = 0; size <= pattern.size(); ++size) {
        const std::string part = pattern.substr(0, size); // of its own, so that overruns show
        (void)pattern_error(part);
        (void)compile_filter(part.c_str());
    }
    EXPECT_EQ(pattern_error(std::string_view{pattern}.substr(0, 21)), 0);
}

// --- what patterns mean

struct meaning {
    const char* pattern;
    const char* line;
    bool passes;
};

static const meaning meanings[] = {
    {"", "anything", true},
    {"", "", true},
    {"b", "abc", true},  // anywhere
    {"B", "abc", false}, // the case counts
    {"[a-z]", "ABC", false},
    {"^ab", "abc", true},
    {"^b", "abc", false},
    {"bc$", "abc", true},
    {"ab$", "abc", false},
    {"^abc$", "abc\n", false}, // a line of the stream ends with a line feed
    {"^abc.$", "abc\n", true},
    {"^b", "a\nb", false},
    {"a.c", "a\nc", true},
    {"^$", "", true},
    {"[0-9A-F]{4}", "xx0A1Fxx", true},
    {"[0-9A-F]{4}", "xx0A1fxx", false},
    {"[^0-9]", "0123", false},
    {"[^0-9]", "01x3", true},
    {"[[:digit:]]+:[[:space:]]", "port 80: ", true},
    {"[[:upper:]]", "abc", false},
    {"[]x]", "]", true},
    {"[^]x]", "]x", false},
    {"[a\\]", "\\", true}, // a backslash in a set is one
    {"a{2,3}b", "ab", false},
    {"a{2,3}b", "aaab", true},
    {"^a{2,3}b", "aaaab", false},
    {"^a{2,}b", "aaaab", true},
    {"^a{0,2}b", "aaab", false},
    {"^(ab){2}$", "abab", true},
    {"ab*c", "ac", true},
    {"ab+c", "ac", false},
    {"ab?c", "abbc", false},
    {"CONS|SLIP", "SLIP: rcvd", true},
    {"CONS|SLIP", "CONSLI: rcvd", true},
    {"CONS|SLIP", "SLI: rcvd", false},
    {"(CONS|SLIP)", "SLIP: rcvd", true},
    {"(CONS|SLIP)", "SL(IP)|CON", false},
    {"(CONS)|(SLIP)", "SLIP: rcvd", true},
    {"CONS|", "SLIP: rcvd", true}, // nothing is in each line
    {"()", "SLIP: rcvd", true},
    {"^(CONS|SLIP): rcvd \"(pn|pnf)\"$", "CONS: rcvd \"pnf\"", true},
    {"^(CONS|SLIP): rcvd \"(pn|pnf)\"$", "CONS: rcvd \"pcl\"", false},
    {"\\<node\\>", "a node here", true},
    {"\\<node\\>", "a node_here", false},
    {"\\<node", "anode", false},
    {"node\\>", "nodes", false},
    {"\\bnode\\b", "(node)", true},
    {"\\Bode", "node", true},
    {"^\\w+\\W\\w+$", "one two", true},
    {"1\\.2", "1x2", false},
    {"1\\.2", "1.2", true},
    {"\\(a\\|b\\)\\{2\\}\\$\\^\\*\\+\\?\\[", "(a|b){2}$^*+?[", true},
    {"\x1b\\[36m", "\x1b[36m11-21", true},
    {"a.b",
     "a\xff"
     "b",
     true}, // a byte is a character
    {"^a..b$",
     "a\xc3\xa4"
     "b",
     true},
};

TEST(filter, patterns_mean_what_operators_know)
{
    for (const auto& [pattern, line, expected] : meanings) {
        const filter_ptr filter = compile_filter(pattern);
        ASSERT_TRUE(filter) << pattern;
        EXPECT_EQ(passes(*filter, line), expected) << pattern << " on " << line;
    }
}

TEST(filter, each_of_nine_whole_words_is_found)
{
    const filter_ptr filter = compile_filter(nine_words.c_str());
    ASSERT_TRUE(filter);
    for (const char* word : {"one", "two", "three", "four", "five", "six", "seven", "eight", "nine"}) {
        EXPECT_TRUE(passes(*filter, (std::string{"a "} + word + " b").c_str())) << word;
        EXPECT_FALSE(passes(*filter, (std::string{"a "} + word + "x b").c_str())) << word;
    }
}

} // namespace rtls
