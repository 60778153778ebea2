#include "checking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls::check {

using testing::IsEmpty;

struct value_case {
    size_t line;
    const char* text;
    said_texts then;
};

static void expect_said(const std::vector<value_case>& cases)
{
    for (const auto& c : cases)
        EXPECT_EQ(said_of(some_file{}.line(c.line, c.text)), c.then) << c.text;
}

TEST(check_values, numbers_that_are_cut)
{
    static const std::string port_remedy = " / write a number from 1 to 65535";
    expect_said({
        {7,
         "    win = 70000",
         {"7 harm cut ports/win: 70000 does not fit into 16 bits: the daemon takes 4464" + port_remedy}},
        {7,
         "    win = -1",
         {"7 harm cut ports/win: -1 does not fit into 16 bits: the daemon takes 65535" + port_remedy}},
        {7,
         "    win = 65536",
         {"7 harm cut ports/win: 65536 does not fit into 16 bits: the daemon takes 0" + port_remedy,
          "7 harm port ports/win: with port 0 the system chooses a port that nobody knows" + port_remedy}},
        {7,
         "    win = 0",
         {"7 harm port ports/win: with port 0 the system chooses a port that nobody knows" + port_remedy}},
        {17,
         "    port = 0",
         {"17 harm port message_handler/port: at port 0 no server can be reached" + port_remedy}},
        {3,
         "firmware_files = 65537",
         {"3 harm cut firmware_files: 65537 does not fit into 16 bits: the daemon takes 1 / write a number "
          "from 1 to 5"}},
        {7, "    win = 65535", {}},
    });
}

TEST(check_values, numbers_that_are_none_or_have_something_behind_them)
{
    static const std::string port_remedy = " / write a number from 1 to 65535, and nothing behind it";
    expect_said({
        {7,
         "    win = abc",
         {"7 refused number ports/win: \"abc\" is not a number from 1 to 65535" + port_remedy}},
        {7, "    win =", {"7 refused number ports/win: \"\" is not a number from 1 to 65535" + port_remedy}},
        {7,
         "    win = 99999999999999999999",
         {"7 refused number ports/win: \"99999999999999999999\" is not a number from 1 to 65535" +
          port_remedy}},
        {7,
         "    win = 4001;",
         {"7 harm trailing ports/win: \";\" behind the number is left out: 4001 is taken" + port_remedy}},
        {7,
         "    win = 4,001",
         {"7 harm trailing ports/win: \",001\" behind the number is left out: 4 is taken" + port_remedy}},
        {7,
         "    win = 04001",
         {"7 warning octal ports/win: \"04001\" begins with 0 and is octal: 2049 is taken / leave the 0 away "
          "if the number "
          "is meant to be decimal"}},
        {7, "    win = 0x1F", {}},
        {7, "    win = \"4001 \"", {}},
        {3,
         "firmware_files = 6",
         {"3 refused number firmware_files: \"6\" is not a number from 1 to 5 / write a number from 1 to 5, "
          "and nothing "
          "behind it"}},
        {3,
         "firmware_files = 0",
         {"3 refused number firmware_files: \"0\" is not a number from 1 to 5 / write a number from 1 to 5, "
          "and nothing "
          "behind it"}},
        {9,
         "    win_backlog = many",
         {"9 harm number ports/win_backlog: \"many\" is not a number from 1 on: 100 is taken / write a "
          "number from 1 on, and "
          "nothing behind it"}},
        {9,
         "    win_backlog = 1k",
         {"9 harm trailing ports/win_backlog: \"k\" behind the number is left out: 1 is taken / write a "
          "number from 1 on, "
          "and nothing behind it"}},
        {9,
         "    win_connections_per_address = 16 bridges",
         {"9 refused number ports/win_connections_per_address: \"16 bridges\" is not a number from 1 on / "
          "write a number "
          "from 1 on, and nothing behind it"}},
        {9,
         "    terminal_connections = 0",
         {"9 refused number ports/terminal_connections: \"0\" is not a number from 1 on / write a number "
          "from 1 on, and "
          "nothing behind it"}},
        {20,
         "http\n    port = 65536",
         {"21 refused number http/port: \"65536\" is not a number from 1 to 65535" + port_remedy}},
    });
}

TEST(check_values, words_that_count_as_no_boolean_or_as_an_unexpected_one)
{
    expect_said({
        {19,
         "    raw = on",
         {"19 harm boolean debug/raw: \"on\" counts neither as yes nor as no: it stays no / write yes or "
          "no"}},
        {19,
         "    raw =",
         {"19 harm boolean debug/raw: \"\" counts neither as yes nor as no: it stays no / write yes or no"}},
        {19,
         "    raw = never",
         {"19 warning boolean debug/raw: only the first character counts: \"never\" is no / write yes or "
          "no"}},
        {19,
         "    raw = 10",
         {"19 warning boolean debug/raw: only the first character counts: \"10\" is yes / write yes or no"}},
        {20,
         "firmware_keep_ordered = off",
         {"20 refused boolean firmware_keep_ordered: \"off\" counts neither as yes nor as no / write yes or "
          "no"}},
        {19, "    raw = TRUE", {}},
        {19, "    raw = 0", {}},
        {19, "    raw = N", {}},
    });
}

TEST(check_values, addresses_and_lists)
{
    static const std::string remedy =
        " / write one of this host's addresses as four numbers, such as 127.0.0.1, or * for all of them";
    expect_said({
        {6,
         "    terminal_address = localhost",
         {"6 refused address ports/terminal_address: \"localhost\" is no IPv4 address" + remedy}},
        {9,
         "    discovery_address = ::1",
         {"9 refused address ports/discovery_address: \"::1\" is no IPv4 address" + remedy}},
        {20,
         "http\n    port = 8080\n    address = here",
         {"22 refused address http/address: \"here\" is no IPv4 address" + remedy}},
        {8,
         "    win_networks = 10.20.0.0/16, 10.30.0/16",
         {"8 refused list ports/win_networks: \"10.30.0/16\" is no IPv4 network / write it as in "
          "10.20.0.0/16, "
          "192.168.7.9, or take the key out"}},
        {8,
         "    win_networks =",
         {"8 refused list ports/win_networks: the list has no IPv4 network / write it as in 10.20.0.0/16, "
          "192.168.7.9, or "
          "take the key out"}},
        {9,
         "    win_macs = 0012AB0000000000/65",
         {"9 refused list ports/win_macs: \"0012AB0000000000/65\" is no MAC / write it as in "
          "0012AB0000000000/24, "
          "0012AC0000000001, or take the key out"}},
        {20,
         "firmware_urls = ,",
         {"20 refused list firmware_urls: the list has no URL / write it as in "
          "https://files.example/firmware/, or take "
          "the key out"}},
        {20,
         "firmware_urls = ftp://a/ http://b/",
         {"20 harm url firmware_urls: no URL that is allowed begins with \"ftp://a/\" / begin it with "
          "http://, https:// or "
          "file://, as in https://files.example/firmware/"}},
        {20,
         "firmware_urls = https://files.example",
         {"20 warning url firmware_urls: \"https://files.example\" is also the beginning of "
          "\"https://files.example.elsewhere/\" / end it with a slash"}},
        {20, "firmware_urls = https://a/, http://b:80/c/ file:///srv/", {}},
        {9, "    win_macs = 00:12:ab:00:00:00:00:00/24 0012AC0000000001", {}},
    });
}

TEST(check_values, what_the_number_sign_does)
{
    expect_said({
        {1,
         "pidfile = /run/rtls-gateway/a#b",
         {"1 warning comment pidfile: the # ends the value: it is \"/run/rtls-gateway/a\" / put the value in "
          "quotation "
          "marks if the # is part of it, or a blank before the #"}},
        {19,
         "    raw = # no",
         {"19 harm comment debug/raw: directly behind the = a # begins no comment: the value is \"# no\" / "
          "put the comment "
          "into a line of its own, and a value or \"\" behind the =",
          "19 harm boolean debug/raw: \"# no\" counts neither as yes nor as no: it stays no / write yes or "
          "no"}},
        {1, "pidfile = \"/run/rtls-gateway/a#b\" # quoted", {}},
    });
    const std::string zero{"    raw = no\0thing", 18};
    EXPECT_EQ(said_of(some_file{}.line(19, zero)),
              (said_texts{"19 harm comment debug/raw: the line has a zero byte, which ends the value: it is "
                          "\"no\" / save the "
                          "file as plain text"}));
}

// What stands in the table as an example is one.
TEST(check_values, the_examples_of_all_keys_are_taken_as_they_stand)
{
    for (const config_key& key : config_keys()) {
        const std::string section = key.section().empty() ? "" : std::string{key.section()} + "\n    ";
        const std::string text = section + std::string{key.name()} + " = " + std::string{key.example} + "\n";
        for (const finding& one : check_configuration(parse_zpl(text), {}))
            EXPECT_TRUE(one.level == severity::warning || one.kind == "missing") << text << one.text;
    }
}

} // namespace rtls::check
