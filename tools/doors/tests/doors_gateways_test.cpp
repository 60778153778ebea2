#include "doors/daemon_config.h"
#include "doors/failure.h"
#include "doors/gateways_file.h"
#include "doors/http_session.h"
#include "doors/macs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace ctl {

using testing::ElementsAre;
using testing::HasSubstr;

static gateways_file read(const std::string& text)
{
    std::istringstream in{text};
    return read_gateways(in, "ctl.conf");
}

template <typename Action>
static std::string refusal_of(Action act)
{
    try {
        act();
    } catch (const failure& why) {
        EXPECT_EQ(why.status(), exit_status::usage);
        return why.what();
    }
    return "none";
}

TEST(ctl_gateways_file, tells_where_each_gateway_is)
{
    const gateways_file file = read("# ours\ngateways = north, south\ntimeout = 2.5\n\n[north]\n"
                                    "  terminal = 10.0.0.5:4010 \nhttp=10.0.0.5\ntoken = /etc/a token\n"
                                    "[south]\nterminal = south.example\n; the end\n");
    ASSERT_EQ(file.gateways.size(), 2u);
    const gateway_address& north = *file.find("north");
    EXPECT_EQ(to_text(*north.terminal), "10.0.0.5:4010");
    EXPECT_EQ(north.http, "http://10.0.0.5:8080");
    EXPECT_EQ(north.token_file, "/etc/a token");
    EXPECT_EQ(to_text(*file.find("south")->terminal), "south.example:4000");
    EXPECT_EQ(file.find("south")->http, "");
    EXPECT_EQ(file.timeout, 2.5);
    EXPECT_EQ(usual_gateways(file).size(), 2u);
    EXPECT_EQ(gateway_by_word(file, "north").http, north.http);
    EXPECT_EQ(to_text(*gateway_by_word(file, "east:1").terminal), "east:1");
}

TEST(ctl_gateways_file, what_cannot_be_read_is_told_with_its_line)
{
    const struct {
        const char* text;
        const char* then;
    } cases[] = {
        {"[a]\nterminal = h\nport = 1\n", "ctl.conf:3: a gateway has no key \"port\""},
        {"tiemout = 1\n", "ctl.conf:1: there is no key \"tiemout\""},
        {"timeout = 0\n", "ctl.conf:1: a timeout is"},
        {"timeout = 5s\n", "ctl.conf:1: a timeout is"},
        {"[a]\nterminal = h:70000\n", "ctl.conf:2: \"h:70000\" is no address"},
        {"[a]\nhttp = ftp://h\n", "ctl.conf:2: \"ftp://h\" is no address"},
        {"[a]\nterminal = h\n[a]\n", "ctl.conf:3: there are two gateways \"a\""},
        {"[a b]\n", "ctl.conf:1: a section is one word"},
        {"[a\n", "ctl.conf:1: a section is one word"},
        {"[a]\nwords\n", "ctl.conf:2: a line is"},
        {"[a]\ntoken = x\n", "the gateway \"a\" has neither terminal nor http"},
        {"gateways = b\n[a]\nterminal = h\n", "\"gateways\" names b"},
    };
    for (const auto& c : cases)
        EXPECT_THAT(refusal_of([&] { read(c.text); }), HasSubstr(c.then)) << c.text;
}

TEST(ctl_gateways_file, one_of_several_must_be_chosen)
{
    const std::string two = "[a]\nterminal = h\n[b]\nterminal = i\n";
    EXPECT_THAT(refusal_of([&] { usual_gateways(read(two)); }), HasSubstr("as in -g a,b"));
    EXPECT_EQ(usual_gateways(read("[a]\nterminal = h\n")).at(0).name, "a");
    EXPECT_EQ(usual_gateways(read("gateways = b\n" + two)).at(0).name, "b");
}

TEST(ctl_gateways_file, addresses)
{
    const struct {
        const char* text;
        const char* then; // null: none
    } cases[] = {
        {"h", "h:4000"},
        {"10.0.0.5:1", "10.0.0.5:1"},
        {"[::1]:65535", "[::1]:65535"},
        {"[::1]", "[::1]:4000"},
        {"h:0", nullptr},
        {"h:", nullptr},
        {"h:65536", nullptr},
        {"h:1x", nullptr},
        {"", nullptr},
        {":1", nullptr},
        {"[::1", nullptr},
        {"[::1]1", nullptr},
        {"http://h:1", nullptr},
        {"a b", nullptr},
        {"h:-1", nullptr},
    };
    for (const auto& c : cases) {
        const auto where = parse_endpoint(c.text, usual_terminal_port);
        ASSERT_EQ(where.has_value(), c.then != nullptr) << c.text;
        EXPECT_EQ(where ? to_text(*where) : "", c.then != nullptr ? c.then : "");
    }
    EXPECT_EQ(http_base("https://h/"), "https://h:443");
    EXPECT_EQ(http_base("http://h:81"), "http://h:81");
}

TEST(ctl_daemon_config, tells_where_this_hosts_gateway_is)
{
    const auto read_config = [](const std::string& text) {
        std::istringstream in{text};
        return read_daemon_config(in);
    };
    const std::string ports =
        "pidfile = /x\nports\n    #   text\n    terminal = 0xFA0  # in hex\n    win = 4001\n";
    EXPECT_EQ(to_text(*read_config(ports).terminal), "127.0.0.1:4000");
    EXPECT_EQ(read_config(ports).http, "");
    const gateway_address all =
        read_config(ports + "    terminal_address = \"10.0.0.5\"\nhttp\n    port = 8080\n"
                            "    address = *\n    token = \"/etc/#1\"\npub_sub_proxy\n    port = 5555\n");
    EXPECT_EQ(to_text(*all.terminal), "10.0.0.5:4000");
    EXPECT_EQ(all.http, "http://127.0.0.1:8080");
    EXPECT_EQ(all.token_file, "/etc/#1");
    EXPECT_THAT(refusal_of([&] { read_config("ports\n    win = 4001\n"); }), HasSubstr("ports/terminal"));
    EXPECT_THAT(refusal_of([&] { read_config(ports + "http\n    port = 70000\n"); }), HasSubstr("http/port"));
}

TEST(ctl_macs, are_whole_or_their_last_digits)
{
    EXPECT_EQ(mac_digits("1A2B"), "1a2b");
    EXPECT_EQ(mac_digits("01a2b"), "01a2b");
    EXPECT_EQ(mac_digits("02AB34CD560:01A2B"), "02ab34cd56001a2b");
    EXPECT_EQ(mac_digits("02:ab:34:cd:56:00:1a:2b"), "02ab34cd56001a2b");
    EXPECT_EQ(short_mac("02ab34cd560:01a2b"), "1a2b");
    for (const char* text : {"", "1a2", "1a2bc1", "0x1a2b", "1a2g", "12345678901234567", "zz"})
        EXPECT_THAT(refusal_of([&] { mac_digits(text); }), HasSubstr("is no MAC")) << text;
}

TEST(ctl_http_session, what_would_end_a_value_is_encoded)
{
    EXPECT_EQ(query_text({{"state", ""}, {"text", "a&b=c d\xff"}, {"limit", "10"}}),
              "text=a%26b%3Dc%20d%FF&limit=10");
}

} // namespace ctl
