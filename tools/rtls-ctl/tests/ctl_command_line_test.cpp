#include "rtls-ctl/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace ctl {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

// Runs the program's command line in this process, and keeps what it says. Whatever this machine is configured
// for does not matter.
class ctl_command_line : public testing::Test {
protected:
    ctl_command_line() { setenv("RTLS_CTL_CONFIG", "/dev/null", 1); }

    int run(const std::vector<std::string>& arguments)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = run_command_line(arguments);
        m_out = testing::internal::GetCapturedStdout();
        m_err = testing::internal::GetCapturedStderr();
        return status;
    }

    std::string m_out;
    std::string m_err;
};

} // namespace

TEST_F(ctl_command_line, wrong_ones_have_status_2_and_one_sentence)
{
    const struct {
        std::vector<std::string> typed;
        const char* then;
    } cases[] = {
        {{}, "A subcommand is required"},
        {{"noeds"}, "there is no command \"noeds\""},
        {{"firmware", "lst"}, "there is no command \"lst\""},
        {{"nodes", "extra"}, "extra"},
        {{"nodes", "--state", "dead"}, "--state"},
        {{"--timeout", "-1", "nodes"}, "--timeout"},
        {{"-g", "a", "--terminal", "b", "nodes"}, "excludes"},
        {{"node"}, "mac"},
        {{"node", "zz"}, "\"zz\" is no MAC"},
        {{"reboot", "1a2b", "0x1"}, "\"0x1\" is no MAC"},
        {{"nodes", "--bridge", "1"}, "\"1\" is no MAC"},
        {{"debug", "win"}, "choice"},
        {{"debug", "wni", "on"}, "wni"},
        {{"firmware"}, "subcommand"},
        {{"firmware", "update", "newest"}, "\"newest\" is neither"},
        {{"--terminal", "127.0.0.1:1", "firmware", "get", "a b"}, "no blanks"},
        {{"--terminal", "h:x", "nodes"}, "\"h:x\" is no address"},
        {{"--config", "/nowhere", "nodes"}, "cannot read /nowhere: No such file"},
        {{"--terminal", "127.0.0.1:1", "--via", "http", "nodes"}, "HTTP port is not known"},
        {{"--http", "127.0.0.1:1", "reboot", "1a2b", "--via", "http", "--token", "/nowhere"},
         "cannot read /nowhere"},
        {{"follow", "--grep", "(", "--terminal", "127.0.0.1:1"}, "the pattern ("},
        {{"completion", "fish"}, "fish"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(run(c.typed), 2) << c.then;
        EXPECT_THAT(m_err, HasSubstr(c.then));
        EXPECT_EQ(m_err.find('\n'), m_err.size() - 1) << m_err;
        EXPECT_THAT(m_err, testing::StartsWith("rtls-ctl: "));
    }
}

TEST_F(ctl_command_line, nobody_there_has_status_3)
{
    EXPECT_EQ(run({"--terminal", "127.0.0.1:1", "nodes"}), 3);
    EXPECT_THAT(m_err, HasSubstr("no terminal answers at 127.0.0.1:1: Connection refused\n"));
    EXPECT_EQ(run({"--http", "127.0.0.1:1", "metrics"}), 3);
    EXPECT_THAT(m_err, HasSubstr("nobody answers at http://127.0.0.1:1"));
    EXPECT_EQ(run({"-g", "127.0.0.1:1,127.0.0.1:2", "--json", "bridges"}), 3);
    EXPECT_THAT(m_out, HasSubstr("\"gateway\": \"127.0.0.1:2\""));
    EXPECT_THAT(m_err, HasSubstr("rtls-ctl: 127.0.0.1:1: no terminal answers at"));
}

TEST_F(ctl_command_line, what_only_one_port_tells_says_so)
{
    EXPECT_EQ(run({"--terminal", "127.0.0.1:1", "metrics"}), 1);
    EXPECT_THAT(m_err, HasSubstr("--http HOST:PORT"));
    EXPECT_EQ(run({"--http", "127.0.0.1:1", "debug"}), 2);
    EXPECT_THAT(m_err, HasSubstr("--terminal HOST:PORT"));
}

TEST_F(ctl_command_line, help_and_version_have_status_0)
{
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_THAT(m_out, HasSubstr("Exit status"));
    EXPECT_EQ(run({"follow", "--help"}), 0);
    EXPECT_THAT(m_out, HasSubstr("everybody's"));
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_THAT(m_out, testing::MatchesRegex("rtls-ctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(ctl_command_line, completion_is_made_of_the_command_line)
{
    for (const char* shell : {"bash", "zsh"}) {
        EXPECT_EQ(run({"completion", shell}), 0);
        for (const char* word : {"nodes", "firmware", "update", "--grep", "ul_tdoa", "--gateway",
                                 "tdoa-mobile", "floating", "'firmware get'"})
            EXPECT_THAT(m_out, HasSubstr(word)) << shell;
    }
}

} // namespace ctl
