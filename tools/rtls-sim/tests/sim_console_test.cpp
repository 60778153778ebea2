#include "rtls-sim/console.h"

#include <gtest/gtest.h>

namespace sim {

// A console that writes to a file, and what it has written.
struct recorded_console {
    explicit recorded_console(console_options options) : file(std::tmpfile()), out(options, file) {}
    recorded_console(const recorded_console&) = delete;
    recorded_console& operator=(const recorded_console&) = delete;
    ~recorded_console() { std::fclose(file); }

    std::string text()
    {
        out.flush();
        std::rewind(file);
        std::string all;
        for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file))
            all += static_cast<char>(c);
        return all;
    }

    FILE* file;
    console out;
};

TEST(sim_console, prints_lines_as_they_come)
{
    recorded_console c{{}};
    c.out.notice("one");
    EXPECT_TRUE(c.out.wants_traffic());
    c.out.traffic("two");
    EXPECT_EQ(c.text(), "one\ntwo\n");
}

TEST(sim_console, is_quiet_about_traffic_when_asked)
{
    recorded_console c{{.quiet = true, .lines_per_second = 0}};
    EXPECT_FALSE(c.out.wants_traffic());
    c.out.traffic("two");
    c.out.notice("three");
    EXPECT_EQ(c.text(), "three\n");
}

TEST(sim_console, keeps_to_its_budget)
{
    recorded_console c{{.quiet = false, .lines_per_second = 3}};
    // All within one second of the budget, however slow the machine: it is begun by the first question.
    for (int i = 0; i < 3; ++i)
        if (c.out.wants_traffic())
            c.out.traffic("line");
    EXPECT_FALSE(c.out.wants_traffic());
    EXPECT_EQ(c.text(), "line\nline\nline\n");
}

TEST(sim_console, counters_are_lines_where_there_is_no_terminal)
{
    recorded_console c{{}};
    c.out.counters("first");
    c.out.counters("soon after"); // too soon
    EXPECT_EQ(c.text(), "first\n");
}

} // namespace sim
