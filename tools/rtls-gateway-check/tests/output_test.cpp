#include "rtls-gateway-check/output.h"

#include "checking.h"
#include "daemon_comparison.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace rtls::check {

using testing::HasSubstr;

namespace {

findings some_findings()
{
    return {{severity::harm, "cut", "ports/win", 7, "it is cut", "write less"},
            {severity::warning, "limit", "", 0, "\x1B[31m red", "do\nnothing"},
            {severity::warning, "syntax", "", 3, "third", "more"}};
}

} // namespace

TEST(output, findings_as_text)
{
    EXPECT_EQ(findings_text("a.conf", some_findings()), "a.conf:7: harm: ports/win: it is cut\n"
                                                        "    write less\n"
                                                        "a.conf: warning: \\x1B[31m red\n"
                                                        "    do\\x0Anothing\n"
                                                        "a.conf:3: warning: third\n"
                                                        "    more\n"
                                                        "a.conf: 1 harm, 2 warnings\n");
    EXPECT_EQ(findings_text("a.conf", {}), "a.conf: no problem found\n");
}

TEST(output, findings_as_json)
{
    const nlohmann::json json = findings_json("a.conf", some_findings());
    EXPECT_EQ(json.at("file"), "a.conf");
    EXPECT_TRUE(json.at("starts"));
    EXPECT_EQ(json.at("findings").at(0), (nlohmann::json{{"level", "harm"},
                                                         {"kind", "cut"},
                                                         {"key", "ports/win"},
                                                         {"line", 7},
                                                         {"text", "it is cut"},
                                                         {"remedy", "write less"}}));
    EXPECT_TRUE(json.at("findings").at(1).at("line").is_null());
    EXPECT_TRUE(json.at("findings").at(1).at("key").is_null());
    EXPECT_FALSE(findings_json("a", {{severity::ends, "", "", 0, "", ""}}).at("starts"));
    EXPECT_FALSE(findings_json("a", {{severity::refused, "", "", 0, "", ""}}).at("starts"));
}

TEST(output, what_holds_says_where_it_comes_from)
{
    const zpl_file file = parse_zpl(some_file{}
                                        .line(7, "    win = 70000")
                                        .line(9, "    win_backlog = none")
                                        .line(3, "")
                                        .line(17, "    port = x")
                                        .line(1, "pidfile = \" a#b\"")
                                        .text());
    const std::string text = effective_text(effective_configuration{file});
    EXPECT_THAT(text, HasSubstr("pidfile = \" a#b\"                                 # line 1\n"));
    EXPECT_THAT(text, HasSubstr("    win = 4464                                   # line 7: 70000\n"));
    EXPECT_THAT(
        text,
        HasSubstr("    win_backlog = 100                            # default: line 9 cannot be read\n"));
    EXPECT_THAT(text, HasSubstr("    win_address = *                              # default\n"));
    EXPECT_THAT(text, HasSubstr("    #   win_connections: default: no limit\n"));
    EXPECT_THAT(text, HasSubstr("#   firmware_files: missing, the daemon does not start\n"));
    EXPECT_THAT(text, HasSubstr("    #   port: line 17 cannot be read, the daemon does not start\n"));
    EXPECT_THAT(text, testing::Not(HasSubstr("http\n")));
}

// What is printed is a configuration itself, and the same holds with it.
TEST(output, what_holds_is_a_configuration_with_which_the_same_holds)
{
    for (const char* line : {"    win = 70000", "    win = 0x1F", "http\n    port = 80\n    address = *",
                             "x = 'it''s'", "    win_macs = 0012AB0000000000/24 0012AB0000000001"}) {
        const zpl_file file = parse_zpl(some_file{}.line(line[0] == ' ' ? 7 : 20, line).text());
        const effective_configuration effective{file};
        const zpl_file printed = parse_zpl(effective_text(effective));
        EXPECT_THAT(printed.faults, testing::IsEmpty()) << effective_text(effective);
        const effective_configuration again{printed};
        for (size_t i = 0; i < effective.keys().size(); ++i)
            EXPECT_EQ(again.keys()[i].reading.value, effective.keys()[i].reading.value)
                << effective.keys()[i].key->path;
    }
}

TEST(output, what_holds_as_json)
{
    const zpl_file file = parse_zpl("ports\n    win = 70000\n    discovery = x\n    win_backlog = none\n");
    nlohmann::json of_key;
    for (const nlohmann::json& one : effective_json(effective_configuration{file}))
        of_key[one.at("key").get<std::string>()] = one;
    const auto row = [](const char* key, nlohmann::json value, const char* source, nlohmann::json line,
                        nlohmann::json written) {
        return nlohmann::json{{"key", key},
                              {"value", std::move(value)},
                              {"source", source},
                              {"line", std::move(line)},
                              {"written", std::move(written)}};
    };
    EXPECT_EQ(of_key.size(), config_keys().size());
    EXPECT_EQ(of_key["ports/win"], row("ports/win", "4464", "file", 2, "70000"));
    EXPECT_EQ(of_key["ports/discovery"], row("ports/discovery", nullptr, "refused", 3, "x"));
    EXPECT_EQ(of_key["ports/win_backlog"], row("ports/win_backlog", "100", "default", 4, "none"));
    EXPECT_EQ(of_key["ports/win_address"], row("ports/win_address", "*", "default", nullptr, nullptr));
    EXPECT_EQ(of_key["ports/win_macs"], row("ports/win_macs", nullptr, "default", nullptr, nullptr));
    EXPECT_EQ(of_key["pidfile"], row("pidfile", nullptr, "missing", nullptr, nullptr));
}

TEST(output, keys)
{
    EXPECT_EQ(key_text(*find_config_key("ports/win")),
              "ports/win\n"
              "    TCP: bridges and sub-gateways.\n"
              "    port, from 1 to 65535; required\n"
              "    A number is cut to its low 16 bits, and what stands behind it is left out. No number: the "
              "daemon does not "
              "start.\n"
              "\n"
              "    ports\n"
              "        win = 4001\n");
    EXPECT_THAT(key_text(*find_config_key("ports/win_backlog")),
                HasSubstr("number, from 1 on; optional; without it: 100\n"));
    EXPECT_THAT(key_text(*find_config_key("pidfile")), HasSubstr("path; required\n\n    pidfile = /run/"));
    EXPECT_THAT(key_text(*find_config_key("http/port")), HasSubstr("required in the section \"http\""));
    EXPECT_THAT(
        keys_text(),
        HasSubstr("ports/win_connections                number        optional; without it: no limit\n"));
    const nlohmann::json json = key_json(*find_config_key("ports/win_backlog"));
    EXPECT_EQ(json.at("section"), "ports");
    EXPECT_EQ(json.at("name"), "win_backlog");
    EXPECT_EQ(json.at("lowest"), 1);
    EXPECT_EQ(json.at("default"), "100");
    EXPECT_EQ(json.at("unreadable"), "ignored");
    EXPECT_EQ(json.at("presence"), "optional");
    EXPECT_TRUE(key_json(*find_config_key("pidfile")).at("lowest").is_null());
    EXPECT_EQ(keys_json().at("keys").size(), config_keys().size());
}

} // namespace rtls::check
