// What a configuration says about others: servers, doors, files, limits of this host.
#include "checking.h"
#include "support/temp_file.h"

#include <czmq.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls::check {

using testing::IsEmpty;

namespace {

class check_relations : public testing::Test {
protected:
    said_texts said(const some_file& file) const
    {
        return said_of(file, {.machine = &m_machine, .bridges = m_bridges});
    }

    some_machine m_machine;
    std::optional<int64_t> m_bridges;
};

TEST_F(check_relations, ports_that_two_want)
{
    static const std::string own = " / give each its own port";
    const struct {
        size_t line;
        const char* text;
        said_texts then;
    } cases[] = {
        {7,
         "    win = 4000",
         {"7 ends clash ports/win: port 4000 is ports/terminal's as well: the second to be opened finds it "
          "in use" +
          own}},
        {7,
         "    win = 69536", // 4000
         {"7 harm cut ports/win: 69536 does not fit into 16 bits: the daemon takes 4000 / write a number "
          "from 1 to 65535",
          "7 ends clash ports/win: port 4000 is ports/terminal's as well: the second to be opened finds it "
          "in use" +
              own}},
        {20,
         "http\n    port = 4000",
         {"21 ends clash http/port: port 4000 is ports/terminal's as well: the second to be opened finds it "
          "in use" +
          own}},
        {10, "    discovery = 4001", {}}, // UDP
        {14,
         "    input_port = 5555",
         {"14 harm clash pub_sub_proxy/input_port: it is the same port of 127.0.0.1 as pub_sub_proxy/port: "
          "one of the two "
          "servers is not there" +
          own}},
        {2,
         "debug_broker_address = tcp://127.0.0.1:5557",
         {"2 harm clash debug_broker_address: it is the same port of 127.0.0.1 as message_handler/port: one "
          "of the two "
          "servers is not there" +
          own}},
        {17,
         "    port = 4001",
         {"17 harm clash message_handler/port: port 4001 of this host is the daemon's own, by ports/win: it "
          "would connect to "
          "itself" +
          own}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said(some_file{}.line(c.line, c.text)), c.then) << c.text;
    EXPECT_THAT(said(some_file{}.line(9, "    win_address = 10.20.0.1").add("http").add("    port = 4001")),
                IsEmpty())
        << "of two addresses";
    EXPECT_THAT(said(some_file{}.line(16, "    address = 192.168.7.9").line(17, "    port = 4001")),
                IsEmpty());
}

TEST_F(check_relations, a_server_at_a_door_of_another_address_is_no_clash)
{
    some_file file;
    file.line(16, "    address = localhost").line(17, "    port = 4000");
    EXPECT_THAT(said(file), testing::SizeIs(1)) << "the terminal's, of 127.0.0.1";
    m_machine.addresses.insert("10.20.0.1");
    file.line(6, "    terminal_address = 10.20.0.1");
    EXPECT_THAT(said(file), IsEmpty());
    file.line(16, "    address = 10.20.0.1");
    EXPECT_THAT(said(file), testing::SizeIs(1));
}

TEST_F(check_relations, hosts_and_endpoints)
{
    static const std::string broker = " is no endpoint that another program can serve: the broker gets "
                                      "nothing / write tcp://, the broker's host, : and "
                                      "its port, or take the key out";
    const struct {
        size_t line;
        const char* text;
        said_texts then;
    } cases[] = {
        {16,
         "    address =",
         {"16 harm host message_handler/address: it is empty: no server can be reached / write the server's "
          "name or IPv4 "
          "address"}},
        {16,
         "    address = tcp://127.0.0.1",
         {"16 ends host message_handler/address: \"tcp://127.0.0.1\" is no host: the daemon ends when it "
          "connects to it / "
          "write the host alone: the key for the port is another"}},
        {12,
         "    address = my proxy",
         {"12 ends host pub_sub_proxy/address: \"my proxy\" is no host: the daemon ends when it connects to "
          "it / write the "
          "server's name or IPv4 address"}},
        {2,
         "debug_broker_address = 127.0.0.1:5558",
         {"2 harm endpoint debug_broker_address: \"127.0.0.1:5558\"" + broker}},
        {2,
         "debug_broker_address = tcp://127.0.0.1",
         {"2 harm endpoint debug_broker_address: \"tcp://127.0.0.1\"" + broker}},
        {2,
         "debug_broker_address = tcp://127.0.0.1:70000",
         {"2 harm endpoint debug_broker_address: \"tcp://127.0.0.1:70000\"" + broker}},
        {2,
         "debug_broker_address = inproc://log",
         {"2 harm endpoint debug_broker_address: \"inproc://log\"" + broker}},
        {2, "debug_broker_address = ipc:///run/log.sock", {}},
        {2, "debug_broker_address =", {"2 harm endpoint debug_broker_address: \"\"" + broker}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said(some_file{}.line(c.line, c.text)), c.then) << c.text;
}

TEST_F(check_relations, the_tap)
{
    static const std::string endpoint =
        " is no endpoint that the tap can be bound to / write tcp://, an address of "
        "this host, : and a port, or ipc:// and the path of a local socket";
    const struct {
        const char* address;
        said_texts then;
    } cases[] = {
        {"tcp://127.0.0.1:5559", {}},
        {"tcp://*:5559", {}},
        {"ipc:///run/rtls-gateway/tap", {}},
        {"127.0.0.1:5559", {"21 refused endpoint tap/address: \"127.0.0.1:5559\"" + endpoint}},
        {"udp://127.0.0.1:5559", {"21 refused endpoint tap/address: \"udp://127.0.0.1:5559\"" + endpoint}},
        {"tcp://127.0.0.1", {"21 ends endpoint tap/address: \"tcp://127.0.0.1\"" + endpoint}},
        {"tcp://127.0.0.1:4000",
         {"21 ends clash tap/address: port 4000 is ports/terminal's as well: the second to be opened finds "
          "it in "
          "use / give each its own port"}},
        {"tcp://127.0.0.1:5557",
         {"17 harm clash message_handler/port: port 5557 of this host is the daemon's own, by tap/address: "
          "it would "
          "connect to itself / give each its own port"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said(some_file{}.add("tap").add(std::string{"    address = "} + c.address)), c.then)
            << c.address;
}

TEST_F(check_relations, names_that_do_not_resolve)
{
    m_machine.unresolved["handler.example"] = "Name or service not known";
    m_machine.unresolved["::1"] = "no IPv4";
    m_machine.unresolved["log.example"] = "silence";
    const some_file file = some_file{}
                               .line(16, "    address = handler.example")
                               .line(12, "    address = [::1]")
                               .line(2, "debug_broker_address = tcp://log.example:5558");
    static const std::string remedy = " / correct the name, write an address, or see to the name server";
    EXPECT_EQ(
        said(file),
        (said_texts{
            "2 warning unresolved debug_broker_address: \"log.example\" has no IPv4 address from here: "
            "silence" +
                remedy,
            "12 warning unresolved pub_sub_proxy/address: \"::1\" has no IPv4 address from here: no IPv4" +
                remedy,
            "16 warning unresolved message_handler/address: \"handler.example\" has no IPv4 address from "
            "here: Name or "
            "service not known" +
                remedy}));
    EXPECT_THAT(said_of(file, {}), IsEmpty()) << "offline nothing is asked";
}

TEST_F(check_relations, doors_that_are_open_to_everybody)
{
    const struct {
        size_t line;
        const char* text;
        said_texts then;
    } cases[] = {
        {6,
         "",
         {"5 warning open ports/terminal: everybody who reaches this host can reboot nodes and load "
          "firmware: there is no "
          "password / write \"terminal_address = 127.0.0.1\", or terminal_networks, below \"ports\""}},
        {6, "    terminal_networks = 10.0.0.0/8", {}},
        {8,
         "",
         {"7 warning open ports/win: everybody who reaches this host can pose as a bridge: the port is open "
          "at all its "
          "addresses / write win_address, or win_networks, below \"ports\""}},
        {8,
         "    win_address = 0.0.0.0",
         {"7 warning open ports/win: everybody who reaches this host can pose as a bridge: the port is open "
          "at all its "
          "addresses / write win_address, or win_networks, below \"ports\""}},
        {8, "    win_address = 10.20.0.1", {}},
        {20,
         "http\n    port = 8080\n    address = *",
         {"22 warning open http/address: everybody who reaches this address can see all nodes: no token is "
          "asked for / name "
          "a token's file by http/token, or leave the address away: it is 127.0.0.1 then"}},
        {20, "http\n    port = 8080", {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said(some_file{}.line(c.line, c.text)), c.then) << c.text;
}

TEST_F(check_relations, an_address_of_another_host)
{
    const some_file file = some_file{}.line(6, "    terminal_address = 10.9.9.9");
    EXPECT_EQ(
        said(file),
        (said_texts{"6 ends address ports/terminal_address: 10.9.9.9 is no address of this host: the port "
                    "cannot be opened / write an address that one of its interfaces has, or * for all of "
                    "them"}));
    EXPECT_THAT(said_of(file, {}), IsEmpty());
}

TEST_F(check_relations, limits_against_one_another_and_the_system)
{
    m_machine.files_limit = 1500;
    m_machine.waiting_limit = 512;
    EXPECT_EQ(
        said(some_file{}.line(8, "    win_networks = 10.0.0.0/8\n    win_connections = 2000\n"
                                 "    win_connections_per_address = 3000")),
        (said_texts{
            "10 warning limit ports/win_connections_per_address: it never matters: 2000 are let in from all "
            "addresses together / make it smaller, or take it out",
            "11 warning limit ports/win_backlog: when all 2000 bridges reconnect at once, 1024 may wait: "
            "many of "
            "the others are not served / write \"win_backlog = 2000\" below \"ports\"",
            "11 warning limit ports/win_backlog: the system lets 512 connections wait, not 1024 / sysctl "
            "net.core.somaxconn=1024",
            "0 warning limit : 1500 open files are allowed (as a hard limit), 2128 may be needed / "
            "LimitNOFILE=2128 in the unit, or ulimit -Hn"}));
}

TEST_F(check_relations, limits_below_the_number_of_bridges)
{
    m_bridges = 1500;
    m_machine.files_limit = 1024;
    EXPECT_EQ(said(some_file{}.line(9, "    win_connections = 1000")),
              (said_texts{
                  "4 harm limit ports/win_backlog: when all 1500 bridges reconnect at once, 100 may wait: "
                  "many of the "
                  "others are not served / write \"win_backlog = 1500\" below \"ports\"",
                  "9 harm limit ports/win_connections: 500 of 1500 bridges are refused / write 1500 or more",
                  "0 harm limit : 1024 open files are allowed (as a hard limit), 1628 may be needed / "
                  "LimitNOFILE=1628 in the unit, or ulimit -Hn"}));
    m_bridges = 1000;
    m_machine.files_limit = 1128;
    EXPECT_THAT(said(some_file{}), IsEmpty());
    m_bridges = {};
    m_machine.files_limit = 127;
    EXPECT_EQ(said(some_file{}),
              (said_texts{"0 refused limit : 127 open files are allowed: the daemon does not start with "
                          "fewer than 128 / LimitNOFILE=128 in the unit, or ulimit -Hn"}));
}

TEST_F(check_relations, bounds_beyond_all_measure_are_no_shortage_of_numbers)
{
    const auto file = some_file{}.line(9, "    win_connections = 9223372036854775807\n"
                                          "    terminal_connections = 9223372036854775807");
    EXPECT_THAT(said(file), testing::Contains(testing::HasSubstr("2000000128 may be needed")));
}

TEST_F(check_relations, where_the_pid_file_stands)
{
    m_machine.files["/tmp"] = {
        .is_there = true, .is_folder = true, .is_for_all_to_write = true, .is_for_all_to_read = true};
    m_machine.files["/"] = {
        .is_there = true, .is_folder = true, .is_for_all_to_write = false, .is_for_all_to_read = true};
    m_machine.files["/run/a"] = m_machine.files["/"];
    const struct {
        const char* text;
        said_texts then;
    } cases[] = {
        {"pidfile = /tmp/a.pid",
         {"1 warning pidfile pidfile: everybody may write in /tmp: the daemon would follow a link there, and "
          "write over a "
          "file / write /run/rtls-gateway/rtls-gateway.pid"}},
        {"pidfile = /srv/a.pid",
         {"1 ends pidfile pidfile: there is no folder /srv: without its pid file the daemon ends / make the "
          "folder, or have "
          "the unit do so: RuntimeDirectory=rtls-gateway"}},
        {"pidfile = /run/b/a.pid",
         {"1 warning pidfile pidfile: there is no folder /run/b: without its pid file the daemon ends / make "
          "the folder, or "
          "have the unit do so: RuntimeDirectory=rtls-gateway"}},
        {"pidfile = /run/a",
         {"1 ends pidfile pidfile: \"/run/a\" is a folder: without its pid file the daemon ends / write "
          "/run/rtls-gateway/rtls-gateway.pid"}},
        {"pidfile =",
         {"1 ends pidfile pidfile: it is empty: without its pid file the daemon ends / write "
          "/run/rtls-gateway/rtls-gateway.pid"}},
        {"pidfile = /a.pid", {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(said(some_file{}.line(1, c.text)), c.then) << c.text;
    EXPECT_EQ(said_of(some_file{}.line(1, "pidfile = a.pid"), {}),
              (said_texts{"1 warning pidfile pidfile: where \"a.pid\" is depends on where the daemon is "
                          "started / write a path "
                          "that begins with a slash"}));
}

TEST_F(check_relations, the_token_is_read_as_the_daemon_does)
{
    const temp_file token{"token", "secret\n"};
    const temp_file two_words{"token", "two words\n"};
    const auto with = [](const std::string& file) {
        return some_file{}.add("http\n    port = 8080\n    token = " + file);
    };
    EXPECT_THAT(said(with(token.path())), IsEmpty());
    m_machine.files[token.path()].is_for_all_to_read = true;
    EXPECT_THAT(said(with(token.path())),
                testing::ElementsAre(
                    testing::StartsWith("22 warning secret http/token: everybody on this host can read")));
    EXPECT_THAT(said(with(two_words.path())),
                testing::ElementsAre(
                    testing::StartsWith("22 refused token http/token: \"" + std::string{two_words.path()})));
    EXPECT_THAT(said(with("/nonexistent")), testing::SizeIs(1));
    EXPECT_THAT(said_of(with("/nonexistent"), {}), IsEmpty());
}

class certificates {
public:
    certificates()
    {
        zcert_t* cert = zcert_new();
        zcert_save_secret(cert, own.path());
        zcert_save_public(cert, server.path());
        zcert_destroy(&cert);
    }

    const temp_file own{"own.cert"};
    const temp_file server{"server.cert"};
};

TEST_F(check_relations, certificates_are_read_as_the_daemon_does)
{
    const certificates files;
    const temp_file broken{"broken.cert", "curve\n  public-key = \"1\"\n"};
    const auto with = [](const std::string& own, const std::string& server) {
        return some_file{}
            .add("curve")
            .add(own.empty() ? "" : "    certificate = " + own)
            .add(server.empty() ? "" : "    message_handler = " + server);
    };
    testing::internal::CaptureStdout();
    EXPECT_THAT(said(with(files.own.path(), files.server.path())), IsEmpty());
    EXPECT_THAT(said(with(files.server.path(), files.server.path())),
                testing::ElementsAre(testing::HasSubstr("is no certificate with a secret key")));
    EXPECT_THAT(said(with(files.own.path(), broken.path())),
                testing::ElementsAre(testing::StartsWith("22 refused certificate curve/message_handler: ")));
    EXPECT_THAT(said(with("", files.server.path())),
                testing::ElementsAre(testing::StartsWith("20 refused missing curve/certificate: ")));
    EXPECT_THAT(said(with(files.own.path(), "")),
                testing::ElementsAre(
                    testing::StartsWith("21 warning certificate curve/certificate: no link uses it")));
    m_machine.files[files.own.path()].is_for_all_to_read = true;
    EXPECT_THAT(said(with(files.own.path(), files.server.path())),
                testing::ElementsAre(
                    testing::StartsWith("21 warning secret curve/certificate: everybody on this host")));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "")
        << "what the library says of a broken file is no answer of ours";
}

// --- this machine

TEST(this_machine, knows_its_addresses_files_and_limits)
{
    const this_machine here{std::chrono::milliseconds{1000}};
    in_addr address{};
    inet_pton(AF_INET, "127.0.0.1", &address);
    EXPECT_TRUE(here.has_address(address));
    inet_pton(AF_INET, "192.0.2.1", &address); // for documentation: nobody's
    EXPECT_FALSE(here.has_address(address));
    EXPECT_TRUE(here.look_at("/tmp").is_folder);
    EXPECT_TRUE(here.look_at("/tmp").is_for_all_to_write);
    EXPECT_FALSE(here.look_at("/").is_for_all_to_write);
    EXPECT_FALSE(here.look_at("/nonexistent").is_there);
    EXPECT_GT(here.most_files(), 10U);
    EXPECT_GT(here.most_waiting(), 1);
}

TEST(this_machine, resolves_names_to_ipv4_addresses)
{
    const this_machine here{std::chrono::milliseconds{20000}};
    const auto reasons = here.resolve({"127.0.0.1", "::1", "localhost"});
    ASSERT_EQ(reasons.size(), 3U);
    EXPECT_FALSE(reasons[0]);
    EXPECT_TRUE(reasons[1]);
    EXPECT_FALSE(reasons[2]);
    EXPECT_THAT(here.resolve({}), IsEmpty());
    const this_machine hasty{std::chrono::milliseconds{-1000}};
    EXPECT_EQ(hasty.resolve({"localhost"}).size(), 1U) << "whoever does not wait gets an answer all the same";
}

} // namespace

} // namespace rtls::check
