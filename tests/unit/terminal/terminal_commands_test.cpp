#include "terminal/terminal_commands.h"

#include "base/common.h"
#include "registry/nodes_container.h"
#include "support/hex_bytes.h"
#include "support/terminal_command_fixture.h"
#include "terminal/request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

namespace rtls {

using terminal_commands_test = terminal_command_fixture;

static constexpr char unknown[] = "Unknown command. Type \"h\" or \"help\" for help.\n";

TEST_F(terminal_commands_test, words_are_found_whatever_surrounds_them)
{
    const struct {
        const char* given;
        const char* command;
        texts_t then;
    } cases[] = {
        {"an alias of two", "sub", {"subscribed * ok.\n"}},
        {"capitals, blanks and a line end", "  \tSUB \t\r\n", {"subscribed * ok.\n"}},
        {"an exclamation mark", "!sub", {"subscribed * ok.\n"}},
        {"another one is part of the word", "!!sub", {unknown}},
        {"a mark alone", "!", {unknown}},
        {"a mark and a blank", "! sub", {unknown}},
        {"more words than needed", "sub a b c", {"subscribed * ok.\n"}},
        {"more words than any command takes",
         "sub 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19",
         {"subscribed * ok.\n"}},
        {"an unknown word", "subs", {unknown}},
        {"a beginning of a word", "su", {unknown}},
        {"bytes that are no text", "\x01\xFF\x80", {unknown}},
        {"a percent sign", "%s%n", {unknown}},
        {"nothing", "", {}},
        {"blanks", " \t ", {}},
        {"line ends", "\r\n\r\n", {}},
        {"two lines: the first word runs", "sub\r\nsub-\r\n", {"subscribed * ok.\n"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(answers_to(c.command), c.then) << c.given;
}

TEST_F(terminal_commands_test, what_was_received_is_printed_trimmed)
{
    run("100%s%n \t\r\n");
    run(" \r\n");
    EXPECT_EQ(m_log.messages("terminal"), (texts_t{"CONS: rcvd \"100%s%n\"", "CONS: rcvd \"\""}));
}

TEST_F(terminal_commands_test, a_word_of_8192_bytes_is_just_unknown)
{
    EXPECT_EQ(answers_to(std::string(8192, 'a')), texts_t{unknown});
}

TEST_F(terminal_commands_test, help_is_one_text)
{
    for (const char* word : {"h", "help", "HELP"}) {
        const texts_t texts = answers_to(word);
        ASSERT_EQ(texts.size(), 1u) << word;
        const std::string& text = texts[0];
        EXPECT_EQ(text.size(), 2288u);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 32);
        EXPECT_TRUE(text.starts_with("use:\n  h | help                                 print this help\n"));
        EXPECT_TRUE(text.ends_with("      SOURSE=                              passive mode\n"));
        EXPECT_EQ(text.find(" \n"), std::string::npos) << "blanks at a line's end";
    }
}

TEST_F(terminal_commands_test, help_lists_what_the_daemon_knows)
{
    const std::string text = answer_to("help");
    EXPECT_EQ(text,
              "use:\n"
              "  h | help                                 print this help\n"
              "  q | quit                                 quit the session\n"
              "  pcl                                      print client lists\n"
              "  reboot MAC                               node reboot (MAC - short MAC-address)\n"
              "  del MAC                                  delete the node (MAC - short MAC-address)\n"
              "  pn                                       print connected nodes list (standard mode)\n"
              "  pnf                                      print connected nodes list (full mode)\n"
              "  info                                     about\n"
              "  dbg [SECTION y|n]                        without arguments prints a debug state\n"
              "                                           with arguments enables or disables debugging "
              "section SECTION\n"
              "      SECTION=raw                          raw input and output data\n"
              "      SECTION=parsing                      parsed the input and output data\n"
              "      SECTION=terminal                     events of telnet-channel\n"
              "      SECTION=win                          events of win-channel\n"
              "      SECTION=discovery                    events of discovery-channel\n"
              "      SECTION=develop                      information for the developer\n"
              "                                           (an example: dbg parsing Y - enable \"parsing\" "
              "section)\n"
              "  sub                                      subscribe on requested channel\n"
              "  sub-                                     unsubscribe on requested channel\n"
              "  grep PATTERN                             filter messages on subscribed channel\n"
              "  grep-                                    clear filter\n"
              "  fw | firmware (get;set;apply;list;info)  management firmware\n"
              "    get URL                                get firmware\n"
              "    apply MAC                              apply firmware (MAC - short MAC-address)\n"
              "    list                                   print a list of firmware\n"
              "    info INDEX                             information about the firmware\n"
              "    del INDEX                              delete firmware\n"
              "    set INDEX MAC [SOURSE]                 set firmware to node (MAC - short MAC-address)\n"
              "      SOURSE=GW                            set firmware from gateway\n"
              "      SOURSE=addr                          set firmware from node with MAC=addr (addr - short "
              "MAC-address)\n"
              "      SOURSE=                              passive mode\n");
}

TEST_F(terminal_commands_test, info_names_the_versions)
{
    EXPECT_EQ(answers_to("info"), texts_t{"GW Version     : 8.6.3\nZMQ version    : 4.3.4\n"
                                          "CZMQ version   : 4.2.1\n\n"});
}

// --- dbg

static std::string sections_text(uint16_t mask)
{
    std::string text;
    for (int section = 0; section < DBG_SECTIONS_NUMBER; ++section)
        text +=
            std::string("\t") + dbg_section_name[section] + ((mask >> section & 1) != 0 ? " y\n" : " n\n");
    return text;
}

TEST_F(terminal_commands_test, dbg_switches_one_section)
{
    const std::string wrong_value = "Incorrect parameter value!\n";
    const struct {
        const char* command;
        uint16_t before;
        uint16_t after;
        std::string then;
    } cases[] = {
        {"dbg", 0x25, 0x25, sections_text(0x25)},
        {"dbg raw y", 0x00, 0x01, sections_text(0x01)},
        {"dbg PARSING Y", 0x01, 0x03, sections_text(0x03)},
        {"dbg win yes", 0x00, 0x08, sections_text(0x08)},
        {"dbg ul_tdoa y", 0x00, 0x40, sections_text(0x40)},
        {"dbg win n", 0x7F, 0x77, sections_text(0x77)},
        {"dbg win Never", 0x08, 0x00, sections_text(0x00)},
        {"dbg win y", 0x08, 0x08, sections_text(0x08)},
        {"dbg raw", 0x01, 0x01, wrong_value},
        {"dbg raw x", 0x01, 0x01, wrong_value},
        {"dbg raw 1", 0x01, 0x01, wrong_value},
        {"dbg raw y x", 0x00, 0x00, wrong_value},
        {"dbg foo", 0x01, 0x01, "Incorrect parameter!\n"},
        {"dbg foo y", 0x01, 0x01, "Incorrect parameter!\n"},
        {"dbg ra y", 0x00, 0x00, "Incorrect parameter!\n"},
    };
    for (const auto& c : cases) {
        debug_mask = c.before;
        run(c.command);
        EXPECT_EQ(debug_mask, c.after) << c.command;
        debug_mask = 0;
        std::string text;
        for (const auto& part : finish_and_take())
            text += part;
        EXPECT_EQ(text, c.then) << c.command;
    }
}

TEST_F(terminal_commands_test, dbg_lists_a_section_a_message)
{
    EXPECT_EQ(answers_to("dbg"), (texts_t{"\traw n\n", "\tparsing n\n", "\tterminal n\n", "\twin n\n",
                                          "\tdiscovery n\n", "\tdevelop n\n", "\tul_tdoa n\n"}));
}

// --- sub, grep

TEST_F(terminal_commands_test, sub_and_its_opposite)
{
    EXPECT_EQ(answers_to("sub"), texts_t{"subscribed * ok.\n"});
    EXPECT_EQ(m_client->subscribed, 1);
    EXPECT_EQ(answers_to("sub-"), texts_t{"unsubscribed * ok.\n"});
    EXPECT_EQ(m_client->subscribed, 0);
}

TEST_F(terminal_commands_test, grep_sets_shows_and_clears_the_filter)
{
    EXPECT_EQ(answers_to("grep"), texts_t{"GREP: -- undefined --\n"});
    EXPECT_EQ(answers_to("grep ab+c"), texts_t{"GREP: ab+c\n"});
    ASSERT_NE(m_client->preg, nullptr);
    EXPECT_TRUE(passes(*m_client->preg, "xabbbcx"));
    EXPECT_EQ(answers_to("grep"), texts_t{"GREP: ab+c\n"});
    EXPECT_EQ(answers_to("grep two words"), texts_t{"GREP: two\n"});
    EXPECT_FALSE(passes(*m_client->preg, "abc"));
    EXPECT_EQ(answers_to("sub-"), texts_t{"unsubscribed * ok.\n"});
    EXPECT_NE(m_client->preg, nullptr) << "the filter outlives the subscription";
    EXPECT_EQ(answers_to("grep-"), texts_t{"GREP: -- undefined --\n"});
    EXPECT_EQ(m_client->preg, nullptr);
    EXPECT_FALSE(m_client->grep_string);
    EXPECT_EQ(answers_to("grep-"), texts_t{"GREP: -- undefined --\n"});
}

TEST_F(terminal_commands_test, grep_that_fails_takes_the_filter_and_leaves_its_text)
{
    const std::string invalid =
        "GREP: cannot set regexp:  Invalid argument\n"; // two blanks, and errno's text
    const std::string costly = "GREP: cannot set regexp:  Argument list too long\n";
    EXPECT_EQ(answers_to("grep ("), (texts_t{invalid, "GREP: -- undefined --\n"}));
    const std::pair<std::string, std::string> refusals[] = {
        {"(", invalid},
        {"a{2,1}", invalid},
        {"a(b)\\1", invalid},
        {"a{256}", costly},
        {"((((a{1,100}){1,100}){1,100}){1,100})", costly},
    };
    for (const auto& [pattern, failed] : refusals) {
        EXPECT_EQ(answers_to("grep abc"), texts_t{"GREP: abc\n"});
        EXPECT_EQ(answers_to("grep " + pattern), (texts_t{failed, "GREP: abc\n"})) << pattern;
        EXPECT_EQ(m_client->preg, nullptr) << pattern;
    }
    const std::string longest(2000, 'x');
    EXPECT_EQ(answers_to("grep " + longest), texts_t{"GREP: " + longest + "\n"});
    EXPECT_EQ(answers_to("grep " + std::string(5000, '.')), (texts_t{costly, "GREP: " + longest + "\n"}));
    EXPECT_EQ(rows_of("pcl")[1], "+ip:10.0.0.1:1001 sub:0 grep:" + longest + "\n");
}

// --- Short MACs, reboot, del

TEST(short_value, follows_strtol)
{
    const struct {
        const char* word;
        std::optional<uint16_t> value;
    } cases[] = {
        {"0", 0x0000},
        {"1a2b", 0x1A2B},
        {"1A2B", 0x1A2B},
        {"0x1a2b", 0x1A2B},
        {"0X1", 0x0001},
        {" 7", 0x0007},
        {"12345", 0x2345},
        {"-1", 0xFFFF},
        {"+a", 0x000A},
        {"0x", 0x0000},
        {"1zz", 0x0001},
        {"apply", 0x000A},
        {"del", 0x00DE},
        {"7fffffffffffffff", 0xFFFF},
        {"zz", std::nullopt},
        {"", std::nullopt},
        {" ", std::nullopt},
        {"-", std::nullopt},
        {"set", std::nullopt},
        {"info", std::nullopt},
        {"8000000000000000", std::nullopt},
        {"-8000000000000001", std::nullopt},
        {"fffffffffffffffff", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(get_short_val_from_str(c.word), c.value) << c.word;
}

TEST_F(terminal_commands_test, reboot_and_del_refuse)
{
    const struct {
        const char* arguments;
        const char* then;
    } cases[] = {
        {"", "MAC are missing!\n"},
        {" zz", "Incorrect MAC value!\n"},
        {" 1a2b", "Node 1A2B not in nodes list\n"},
        {" 12345", "Node 2345 not in nodes list\n"},
        {" 0x", "Node 0000 not in nodes list\n"},
        {" -1", "Node FFFF not in nodes list\n"},
        {" 7 garbage", "Node 0007 not in nodes list\n"},
        {" 99999999999999999999", "Incorrect MAC value!\n"},
    };
    for (const auto& c : cases)
        for (const std::string command : {"reboot", "del"})
            for (int round = 0; round < 2; ++round)
                EXPECT_EQ(answers_to(command + c.arguments), texts_t{c.then}) << command << c.arguments;
}

TEST_F(terminal_commands_test, reboot_without_a_running_server_fails)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(answers_to("reboot 1a2b"), texts_t{"Failed to send command!\n"});
}

TEST_F(terminal_commands_test, del_removes_one_node)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2C"));
    EXPECT_EQ(answers_to("del 1a2b"), texts_t{"Command completed successfully!\n"});
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 1u);
    EXPECT_EQ(answers_to("del 1a2b"), texts_t{"Node 1A2B not in nodes list\n"});
    EXPECT_EQ(answers_to("del 0x1A2C"), texts_t{"Command completed successfully!\n"});
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 0u);
}

} // namespace rtls
