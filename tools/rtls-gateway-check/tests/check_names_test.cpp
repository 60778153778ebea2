#include "checking.h"
#include "rtls-gateway-check/nearest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls::check {

using testing::IsEmpty;

TEST(check_names, a_configuration_without_a_flaw)
{
    EXPECT_THAT(said_of(some_file{}), IsEmpty());
    EXPECT_FALSE(has_problem({}));
}

TEST(check_names, names_that_are_not_read)
{
    const struct {
        size_t line;
        const char* text;
        said_texts then;
    } cases[] = {
        {9,
         "    win_backlogs = 1024",
         {"9 harm misspelt ports/win_backlogs: there is no such key, it is left out; \"ports/win_backlog\" "
          "may be meant / correct the name, or take the line out"}},
        {9,
         "    Win-Backlog = 1024",
         {"9 harm misspelt ports/Win-Backlog: there is no such key, it is left out; \"ports/win_backlog\" "
          "may be meant / correct the name, or take the line out"}},
        {9,
         "    colour = blue",
         {"9 warning unknown ports/colour: the daemon knows no such name, and leaves it out / take it out; "
          "rtls-gateway-check --list-keys has all keys"}},
        {9,
         "    firmware_urls = https://a/",
         {"9 harm misplaced ports/firmware_urls: nothing reads it here: the daemon looks for firmware_urls / "
          "write \"firmware_urls = https://a/\", not indented"}},
        {20,
         "win_backlog = 2048",
         {"20 harm misplaced win_backlog: nothing reads it here: the daemon looks for ports/win_backlog / "
          "write \"win_backlog = 2048\" below \"ports\", indented by four blanks"}},
        {20,
         "token = /etc/token",
         {"20 harm misplaced token: nothing reads it here: the daemon looks for http/token / write \"token = "
          "/etc/token\" below \"http\", indented by four blanks"}},
        {20,
         "win_conections = 5",
         {"20 harm misplaced win_conections: nothing reads it here: the daemon looks for "
          "ports/win_connections / write \"win_connections = 5\" below \"ports\", indented by four blanks"}},
        {20,
         "ports/win_macs = 0012AB0000000000",
         {"20 harm misplaced ports/win_macs: a name with a slash is never found: the slash stands between a "
          "section and a key / write \"win_macs = 0012AB0000000000\" below \"ports\", indented by four "
          "blanks"}},
        {20,
         "some/thing = 1",
         {"20 warning unknown some/thing: the daemon knows no such name, and leaves it out / take it out; "
          "rtls-gateway-check --list-keys has all keys"}},
        {9,
         "        win_macs = 0012AB0000000000",
         {"9 harm misplaced ports/win_networks/win_macs: it is indented as a part of \"ports/win_networks\", "
          "where nothing reads it / write \"win_macs = 0012AB0000000000\" below \"ports\", indented by four "
          "blanks"}},
        {9,
         "        colour = blue",
         {"9 warning unknown ports/win_networks/colour: it is indented as a part of \"ports/win_networks\", "
          "where nothing reads it / take it out"}},
        {4,
         "ports = 5",
         {"4 warning unknown ports: a section has no value: \"5\" is left out / take the value out"}},
        {20, "simulator\n    images = 8080", {}}, // the simulator's own
    };
    for (const auto& c : cases)
        EXPECT_EQ(said_of(some_file{}.line(c.line, c.text)), c.then) << c.text;
}

TEST(check_names, a_section_that_is_misspelt_is_one_problem_and_its_keys_are_missing)
{
    EXPECT_EQ(
        said_of(some_file{}.line(15, "message_handlers")),
        (said_texts{
            "15 harm misspelt message_handlers: there is no such section, it is left out; "
            "\"message_handler\" may be meant / correct the name, or take the lines out",
            "0 refused missing message_handler/address: it is required, and is not there / line 15 may be "
            "meant",
            "0 refused missing message_handler/port: it is required, and is not there / line 15 may be "
            "meant"}));
}

TEST(check_names, what_is_missing_is_named_with_an_example_or_the_line_that_is_meant)
{
    const struct {
        size_t line;
        const char* text;
        said_texts then;
    } cases[] = {
        {1,
         "",
         {"0 refused missing pidfile: it is required, and is not there / write \"pidfile = "
          "/run/rtls-gateway/rtls-gateway.pid\", not indented"}},
        {10,
         "",
         {"4 refused missing ports/discovery: it is required, and is not there / write \"discovery = 4002\" "
          "below "
          "\"ports\", indented by four blanks"}},
        {10,
         "    discover = 4002",
         {"4 refused missing ports/discovery: it is required, and is not there / line 10 may be meant",
          "10 harm misspelt ports/discover: there is no such key, it is left out; \"ports/discovery\" may be "
          "meant / "
          "correct the name, or take the line out"}},
        {20,
         "http\n    address = 127.0.0.1",
         {"20 refused missing http/port: it is required, and is not there / write \"port = 8080\" below "
          "\"http\", "
          "indented by four blanks"}},
        {2, "", {}},  // optional
        {19, "", {}}, // optional
    };
    for (const auto& c : cases)
        EXPECT_EQ(said_of(some_file{}.line(c.line, c.text)), c.then) << c.line << " " << c.text;
}

TEST(check_names, an_empty_file_misses_every_required_key)
{
    const findings found = check_configuration(parse_zpl(""), {});
    said_texts missing;
    for (const finding& one : found)
        missing.push_back(one.kind + " " + one.key);
    said_texts required;
    for (const config_key& key : config_keys())
        if (key.presence == key_presence::required)
            required.push_back("missing " + std::string{key.path});
    EXPECT_EQ(missing, required);
    EXPECT_EQ(required.size(), 10U);
    EXPECT_TRUE(has_problem(found));
}

TEST(check_names, what_stands_there_twice)
{
    const struct {
        const char* text; // behind line 9, in "ports"
        said_texts then;
    } cases[] = {
        {"    win_backlog = 1024\n    win = 5001",
         {"10 harm repeated ports/win: stands in line 7 already, and only what stands there counts / take "
          "one of the two "
          "out"}},
        {"    win_backlog = 1024\n    win = 4001",
         {"10 warning repeated ports/win: stands in line 7 already, and only what stands there counts / take "
          "one of the two "
          "out"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said_of(some_file{}.line(9, c.text)), c.then) << c.text;
    EXPECT_EQ(
        said_of(some_file{}.add("ports\n    win_macs = 0012AB0000000000")),
        (said_texts{
            "20 harm repeated ports: stands in line 4 already, and only what stands there counts: nothing of "
            "this one is seen / move its keys to line 4"}));
}

TEST(check_names, syntax_and_what_is_behind_it_are_told_together)
{
    EXPECT_EQ(
        said_of(some_file{}.line(7, "  win = 4001").line(19, "    raw: on")),
        (said_texts{
            "7 refused syntax : indented by 2 blanks / indent by four blanks a level",
            "19 refused syntax : between the name and its value there is no = / write \"raw = value\"",
            "19 harm boolean debug/raw: \"on\" counts neither as yes nor as no: it stays no / write yes or "
            "no"}));
}

TEST(nearest, words_a_slip_or_two_apart)
{
    const std::string_view known[] = {"address", "port", "input_port", "win_networks"};
    const struct {
        const char* word;
        const char* then;
    } cases[] = {
        {"addres", "address"},
        {"adress", "address"},
        {"adresss", "address"},
        {"ADDRESS", "address"},
        {"prot", "port"},
        {"ports", "port"},
        {"put", ""},
        {"pt", ""},
        {"input-port", "input_port"},
        {"win_netwroks", "win_networks"},
        {"win_net", ""},
        {"", ""},
        {"sserddaa", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(nearest(c.word, known), c.then) << c.word;
    EXPECT_EQ(nearest(std::string(1000, 'a'), known), "");
}

} // namespace rtls::check
