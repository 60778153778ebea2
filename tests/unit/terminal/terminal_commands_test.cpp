#include "terminal/terminal_commands.h"

#include "base/common.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/sock.h"
#include "support/test_gateway.h"
#include "terminal/request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace rtls {

using strings = std::vector<std::string>;

static constexpr char operator_id[] = "operator";
static constexpr char listening[] = "the terminal's own line";

// A TCP connection within this process.
class tcp_connection {
public:
    explicit tcp_connection(uint16_t port = 0)
    {
        const int yes = 1;
        setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes); // cases follow each other
        sockaddr_in addr = ipv4_address("127.0.0.1", port);
        socklen_t size = sizeof addr;
        EXPECT_EQ(bind(m_listener, reinterpret_cast<sockaddr*>(&addr), size), 0);
        EXPECT_EQ(listen(m_listener, 1), 0);
        EXPECT_EQ(getsockname(m_listener, reinterpret_cast<sockaddr*>(&addr), &size), 0);
        EXPECT_EQ(connect(m_connecting, reinterpret_cast<sockaddr*>(&addr), size), 0);
        m_accepted = accept(m_listener, nullptr, nullptr);
        EXPECT_GE(m_accepted, 0);
    }
    ~tcp_connection()
    {
        close(m_accepted);
        close(m_connecting);
        close(m_listener);
    }
    tcp_connection(const tcp_connection&) = delete;
    tcp_connection& operator=(const tcp_connection&) = delete;

    int accepted_fd() const { return m_accepted; }
    sockaddr_in peer_address() const // of the accepting end
    {
        sockaddr_in addr{};
        socklen_t size = sizeof addr;
        EXPECT_EQ(getpeername(m_accepted, reinterpret_cast<sockaddr*>(&addr), &size), 0);
        return addr;
    }
    bool is_cut() const { return send(m_accepted, "x", 1, MSG_NOSIGNAL) < 0; }

private:
    int m_listener = socket(AF_INET, SOCK_STREAM, 0);
    int m_connecting = socket(AF_INET, SOCK_STREAM, 0);
    int m_accepted = -1;
};

// Runs commands against a gateway that is not started, with a pair of sockets in place of the operator:
// what the commands write is seen frame by frame.
class terminal_commands_test : public testing::Test {
protected:
    terminal_commands_test()
    {
        zsock_set_sndtimeo(m_terminal.get(), 0);
        zsock_set_rcvtimeo(m_operator.get(), 0);
        m_client = add_operator(operator_id, "10.0.0.1", 1001);
        (void)m_log.take(); // what the gateway said of its configuration
    }
    ~terminal_commands_test() override { debug_mask = 0; }

    TERMINAL_CLIENT_t* add_operator(const char* id, const char* ip, uint16_t port)
    {
        auto* client = new TERMINAL_CLIENT_t;
        client->id.reset(zframe_from(id));
        client->client_addr = ipv4_address(ip, port);
        const zstr_ptr key{zframe_strhex(client->id.get())};
        zhashx_t* clients = rtls_gateway_get_terminal_clients(m_gateway.handle());
        if (zhashx_size(clients) == 0)
            zhashx_set_destructor(clients, terminal_client_item_destructor);
        EXPECT_EQ(zhashx_insert(clients, key.get(), client), 0);
        return client;
    }

    void run(std::string command)
    {
        terminal_commands_parse(m_gateway.handle(), m_client, m_terminal.get(), command.data(), m_dbg.get());
    }

    // The texts written so far. Each must come behind the operator's identity.
    strings answers()
    {
        strings texts;
        while (const zstr_ptr id{zstr_recv(m_operator.get())}) {
            EXPECT_STREQ(id.get(), operator_id);
            EXPECT_TRUE(zsock_rcvmore(m_operator.get())) << "an identity without a text";
            const zmsg_ptr rest{zmsg_recv(m_operator.get())};
            while (zmsg_size(rest.get()) > 1) { // two answers to one multipart message: "more" stays set
                const zstr_ptr text{zmsg_popstr(rest.get())};
                texts.emplace_back(text.get());
                const zstr_ptr next_id{zmsg_popstr(rest.get())};
                EXPECT_STREQ(next_id.get(), operator_id);
            }
            const zstr_ptr text{zmsg_popstr(rest.get())};
            texts.emplace_back(text ? text.get() : "");
        }
        return texts;
    }

    strings answers_to(const std::string& command)
    {
        run(command);
        return finish_and_take();
    }

    // zstr_sendm leaves the message open on this kind of socket; one more pair closes it.
    strings finish_and_take()
    {
        zstr_sendm(m_terminal.get(), operator_id);
        zstr_send(m_terminal.get(), listening);
        strings texts = answers();
        EXPECT_FALSE(texts.empty());
        EXPECT_EQ(texts.back(), listening) << "identities and texts are out of step";
        texts.pop_back();
        return texts;
    }

    std::string answer_to(const std::string& command)
    {
        std::string all;
        for (const auto& text : answers_to(command))
            all += text;
        return all;
    }

    // The rows of a listing, however they were put into frames.
    strings rows_of(const std::string& command)
    {
        std::istringstream text{answer_to(command)};
        strings rows;
        for (std::string row; std::getline(text, row);)
            rows.push_back(row + '\n');
        return rows;
    }

    // From now on no frame is accepted any more, as from an operator who does not read.
    void stall()
    {
        m_terminal.reset(zsock_new(ZMQ_PUSH));
        zsock_set_sndtimeo(m_terminal.get(), 0);
    }

    strings errors() { return m_log.messages("main"); }

    log_capture m_log;
    test_gateway m_gateway;
    const std::string m_endpoint = new_endpoint();
    zsock_ptr m_operator{zsock_new_pull(("@" + m_endpoint).c_str())};
    zsock_ptr m_terminal{zsock_new_push((">" + m_endpoint).c_str())};
    zsock_ptr m_dbg{zsock_new_push(">inproc://dbg_dump")};
    TERMINAL_CLIENT_t* m_client = nullptr;
};

static constexpr char unknown[] = "Unknown command. Type \"h\" or \"help\" for help.\n";

TEST_F(terminal_commands_test, words_are_found_whatever_surrounds_them)
{
    const struct {
        const char* given;
        const char* command;
        strings then;
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
    EXPECT_EQ(m_log.messages("terminal"), (strings{"CONS: rcvd \"100%s%n\"", "CONS: rcvd \"\""}));
}

TEST_F(terminal_commands_test, a_word_of_8192_bytes_is_just_unknown)
{
    EXPECT_EQ(answers_to(std::string(8192, 'a')), strings{unknown});
}

TEST_F(terminal_commands_test, help_is_one_text)
{
    for (const char* word : {"h", "help", "HELP"}) {
        const strings texts = answers_to(word);
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
    EXPECT_EQ(answers_to("info"), strings{"GW Version     : 8.6.3\nZMQ version    : 4.3.4\n"
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
    EXPECT_EQ(answers_to("dbg"), (strings{"\traw n\n", "\tparsing n\n", "\tterminal n\n", "\twin n\n",
                                          "\tdiscovery n\n", "\tdevelop n\n", "\tul_tdoa n\n"}));
}

// --- sub, grep

TEST_F(terminal_commands_test, sub_and_its_opposite)
{
    EXPECT_EQ(answers_to("sub"), strings{"subscribed * ok.\n"});
    EXPECT_EQ(m_client->subscribed, 1);
    EXPECT_EQ(answers_to("sub-"), strings{"unsubscribed * ok.\n"});
    EXPECT_EQ(m_client->subscribed, 0);
}

TEST_F(terminal_commands_test, grep_sets_shows_and_clears_the_filter)
{
    EXPECT_EQ(answers_to("grep"), strings{"GREP: -- undefined --\n"});
    EXPECT_EQ(answers_to("grep ab+c"), strings{"GREP: ab+c\n"});
    ASSERT_NE(m_client->preg, nullptr);
    EXPECT_TRUE(passes(*m_client->preg, "xabbbcx"));
    EXPECT_EQ(answers_to("grep"), strings{"GREP: ab+c\n"});
    EXPECT_EQ(answers_to("grep two words"), strings{"GREP: two\n"});
    EXPECT_FALSE(passes(*m_client->preg, "abc"));
    EXPECT_EQ(answers_to("sub-"), strings{"unsubscribed * ok.\n"});
    EXPECT_NE(m_client->preg, nullptr) << "the filter outlives the subscription";
    EXPECT_EQ(answers_to("grep-"), strings{"GREP: -- undefined --\n"});
    EXPECT_EQ(m_client->preg, nullptr);
    EXPECT_FALSE(m_client->grep_string);
    EXPECT_EQ(answers_to("grep-"), strings{"GREP: -- undefined --\n"});
}

TEST_F(terminal_commands_test, grep_that_fails_takes_the_filter_and_leaves_its_text)
{
    const std::string invalid =
        "GREP: cannot set regexp:  Invalid argument\n"; // two blanks, and errno's text
    const std::string costly = "GREP: cannot set regexp:  Argument list too long\n";
    EXPECT_EQ(answers_to("grep ("), (strings{invalid, "GREP: -- undefined --\n"}));
    const std::pair<std::string, std::string> refusals[] = {
        {"(", invalid},
        {"a{2,1}", invalid},
        {"a(b)\\1", invalid},
        {"a{256}", costly},
        {"((((a{1,100}){1,100}){1,100}){1,100})", costly},
    };
    for (const auto& [pattern, failed] : refusals) {
        EXPECT_EQ(answers_to("grep abc"), strings{"GREP: abc\n"});
        EXPECT_EQ(answers_to("grep " + pattern), (strings{failed, "GREP: abc\n"})) << pattern;
        EXPECT_EQ(m_client->preg, nullptr) << pattern;
    }
    const std::string longest(2000, 'x');
    EXPECT_EQ(answers_to("grep " + longest), strings{"GREP: " + longest + "\n"});
    EXPECT_EQ(answers_to("grep " + std::string(5000, '.')), (strings{costly, "GREP: " + longest + "\n"}));
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
                EXPECT_EQ(answers_to(command + c.arguments), strings{c.then}) << command << c.arguments;
}

TEST_F(terminal_commands_test, reboot_without_a_running_server_fails)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(answers_to("reboot 1a2b"), strings{"Failed to send command!\n"});
}

TEST_F(terminal_commands_test, del_removes_one_node)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2C"));
    EXPECT_EQ(answers_to("del 1a2b"), strings{"Command completed successfully!\n"});
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 1u);
    EXPECT_EQ(answers_to("del 1a2b"), strings{"Node 1A2B not in nodes list\n"});
    EXPECT_EQ(answers_to("del 0x1A2C"), strings{"Command completed successfully!\n"});
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 0u);
}

// --- Lists

TEST_F(terminal_commands_test, pcl_marks_the_one_who_asks)
{
    TERMINAL_CLIENT_t* other = add_operator("another", "10.0.0.2", 1002);
    other->subscribed = 1;
    other->grep_string = "abc";
    m_gateway.add_bridge("bridge", hex("0A 1B 2C 3D 4E 5F 60 71"), "10.0.0.3", 1003);
    EXPECT_THAT(rows_of("pcl"), testing::UnorderedElementsAre(
                                    "####### Terminal clients\n", "+ip:10.0.0.1:1001 sub:0 grep:--\n",
                                    " ip:10.0.0.2:1002 sub:1 grep:abc\n", "####### WIN clients:\n",
                                    " ip:10.0.0.3:1003\n", "##\n"));
    const strings lines = rows_of("PCL");
    EXPECT_EQ(lines.front(), "####### Terminal clients\n");
    EXPECT_EQ(lines[3], "####### WIN clients:\n");
    EXPECT_EQ(lines.back(), "##\n");
}

TEST_F(terminal_commands_test, pn_of_an_empty_registry)
{
    const strings titles{"####### Connected Nodes\n", "####### Floating nodes\n", "####### Expired nodes\n",
                         "##\n"};
    EXPECT_EQ(rows_of("pn"), titles);
    EXPECT_EQ(rows_of("pnf"), titles);
}

static std::string plain_line(const std::string& short_mac, const char* end = "  ", int ttl = 300)
{
    return text_format("%s und 00 par:00000 sw:00000000 rgf:  0 ttl:%3d sl:00 %s dtx: no\n",
                       short_mac.c_str(), ttl, end);
}

TEST_F(terminal_commands_test, pn_groups_nodes_by_bridge)
{
    m_gateway.add_bridge("bridge", hex("0A 1B 2C 3D 4E 5F 60 71"), "10.0.0.3", 1003);
    const bytes_t own_ip = hex("FE 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
    const auto with_own_ip = [&](NODE_t& node) { memcpy(node.ip_addr, own_ip.data(), own_ip.size()); };
    m_gateway.add_node(hex("00 00 00 00 00 00 00 01"), "bridge", with_own_ip);
    m_gateway.add_node(hex("00 00 00 00 00 00 00 02"), "bridge",
                       [](NODE_t& node) { node.forwarded_ip = true; });
    m_gateway.add_node(hex("00 00 00 00 00 00 00 03"), "gone");
    m_gateway.add_node(hex("00 00 00 00 00 00 00 04"), "bridge", [](NODE_t& node) { // its bridge lives
        node.lifetime = 0;
        node.last_activity.tv_sec = time(nullptr) - 3'600'000; // 1000 hours: no second matters
    });
    const strings lines = rows_of("pn");
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0], "####### Connected Nodes\n");
    EXPECT_EQ(lines[1], "Bridge MAC:0a1b2c3d4e5:f6071 ip4:10.0.0.3:1003\n");
    EXPECT_THAT(strings(lines.begin() + 2, lines.begin() + 4),
                testing::UnorderedElementsAre(plain_line("00001"), plain_line("00002", "FW")));
    EXPECT_EQ(lines[4], "####### Floating nodes\n");
    EXPECT_EQ(lines[5], plain_line("00003"));
    EXPECT_EQ(lines[6], "####### Expired nodes\n");
    EXPECT_TRUE(
        lines[7].starts_with("00004 und 00 par:00000 sw:00000000 rgf:  0 ttl:  0 sl:00    (1000:00:0"));
    EXPECT_EQ(lines[8], "##\n");
}

TEST_F(terminal_commands_test, pn_shows_each_node_once_among_three_bridges)
{
    for (const char* bridge : {"b1", "b2", "b3"}) {
        const auto last = static_cast<uint8_t>(bridge[1]);
        m_gateway.add_bridge(bridge, bytes_t{0, 0, 0, 0, 0, 0, 0, last}, "10.0.0.3", last);
        for (uint8_t i = 1; i <= 3; ++i)
            m_gateway.add_node(bytes_t{0, 0, 0, 0, 0, 0, last, i}, bridge,
                               [&](NODE_t& node) { node.ip_addr[0] = i; });
    }
    const strings lines = rows_of("pn");
    EXPECT_EQ(lines.size(), 1u + 3 * 4 + 3);
    std::string bridge;
    for (size_t i = 1; i < 13; ++i) {
        if (lines[i].starts_with("Bridge MAC:")) {
            bridge = lines[i].substr(lines[i].find(" ip4:") - 2, 2);
            continue;
        }
        EXPECT_EQ(lines[i].substr(1, 2), bridge) << lines[i];
        EXPECT_EQ(lines[i].find("duplicated"), std::string::npos);
    }
}

TEST_F(terminal_commands_test, pn_flags_duplicated_addresses)
{
    m_gateway.add_bridge("bridge", hex("0A 1B 2C 3D 4E 5F 60 71"), "10.0.0.3", 1003);
    for (uint8_t i = 1; i <= 2; ++i)
        m_gateway.add_node(bytes_t{0, 0, 0, 0, 0, 0, 0, i}, "bridge",
                           [](NODE_t& node) { node.ip_addr[0] = 0xFE; });
    const std::string text = answer_to("pn");
    EXPECT_NE(text.find(plain_line("00001", "   IP address is duplicated!")), std::string::npos) << text;
    EXPECT_NE(text.find(plain_line("00002", "   IP address is duplicated!")), std::string::npos) << text;
}

// The socket queues a thousand frames for an operator who reads slowly.
TEST_F(terminal_commands_test, long_listings_leave_many_rows_in_a_frame)
{
    constexpr size_t nodes = 1000;
    for (size_t i = 0; i < nodes; ++i)
        m_gateway.add_node(bytes_t{0, 0, 0, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
    for (const char* command : {"pn", "pnf"}) {
        const strings frames = answers_to(command);
        size_t rows = 0;
        for (const auto& frame : frames) {
            EXPECT_LE(frame.size(), 16'384u);
            EXPECT_EQ(frame.back(), '\n') << "a row is never cut";
            rows += static_cast<size_t>(std::count(frame.begin(), frame.end(), '\n'));
        }
        EXPECT_EQ(rows, nodes + 4);
        EXPECT_LT(frames.size(), nodes / 50);
        EXPECT_EQ(frames.front(), "####### Connected Nodes\n");
        EXPECT_TRUE(frames.back().ends_with("\n##\n"));
    }
}

// --- quit

TEST_F(terminal_commands_test, quit_says_goodbye_closes_and_forgets)
{
    for (const char* word : {"q", "QUIT"}) {
        EXPECT_EQ(answers_to(word), (strings{"bye bye.\n", ""})) << word;
        EXPECT_EQ(zhashx_size(rtls_gateway_get_terminal_clients(m_gateway.handle())), 0u);
        EXPECT_THAT(m_log.messages("terminal"),
                    testing::Contains("CONS: Client 6F70657261746F72 disconnected"));
        m_client = add_operator(operator_id, "10.0.0.1", 1001);
    }
}

// Whoever does not read cannot be closed by a frame, so the connection itself is cut; but only that.
TEST_F(terminal_commands_test, quit_that_cannot_be_told_cuts_the_connection_of_who_does_not_read)
{
    const struct {
        const char* given;
        int socket_type; // whose identity frames fail: a full PUSH with EAGAIN, a STREAM with EHOSTUNREACH
        bool is_same_peer;
        bool is_same_port;
        bool is_peer_proven;
        bool then_cut;
    } cases[] = {
        {"an operator who does not read", ZMQ_PUSH, true, true, true, true},
        {"an operator who is gone", ZMQ_STREAM, true, true, true, false},
        {"a descriptor that has another owner", ZMQ_PUSH, false, true, true, false},
        {"a descriptor of another port", ZMQ_PUSH, true, false, true, false},
        {"an address that may be another's", ZMQ_PUSH, true, true, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const tcp_connection connection{c.is_same_port ? m_gateway.terminal_port() : uint16_t{0}};
        m_client->fd = connection.accepted_fd();
        m_client->client_addr = connection.peer_address();
        m_client->is_peer_proven = c.is_peer_proven;
        if (!c.is_same_peer)
            m_client->client_addr.sin_port = static_cast<in_port_t>(~m_client->client_addr.sin_port);
        m_terminal.reset(zsock_new(c.socket_type));
        zsock_set_sndtimeo(m_terminal.get(), 0);
        run("quit");
        EXPECT_EQ(connection.is_cut(), c.then_cut);
        EXPECT_EQ(zhashx_size(rtls_gateway_get_terminal_clients(m_gateway.handle())), 1u)
            << "the record stays until the disconnect";
    }
}

// --- An operator who takes nothing

TEST_F(terminal_commands_test, who_does_not_read_is_waited_for_once)
{
    EXPECT_EQ(answers_to("sub"), strings{"subscribed * ok.\n"});
    stall();
    constexpr int64_t time_out = 200;
    zsock_set_sndtimeo(m_terminal.get(), time_out);
    const auto time_of = [this](const char* command) {
        const int64_t begin = zclock_mono();
        run(command);
        return zclock_mono() - begin;
    };
    EXPECT_GE(time_of("sub"), time_out - 1);
    for (const char* command : {"sub", "info", "dbg", "fw list", "reboot 1a2b", "quit"})
        EXPECT_LT(time_of(command), time_out / 2) << command;

    ASSERT_EQ(zsock_connect(m_terminal.get(), "%s", m_endpoint.c_str()), 0); // now he reads
    EXPECT_EQ(answers_to("sub"), strings{"subscribed * ok.\n"});
    stall();
    zsock_set_sndtimeo(m_terminal.get(), time_out);
    EXPECT_GE(time_of("sub"), time_out - 1);
}

TEST_F(terminal_commands_test, who_never_took_anything_is_not_waited_for)
{
    stall();
    constexpr int64_t time_out = 2000;
    zsock_set_sndtimeo(m_terminal.get(), time_out);
    const int64_t begin = zclock_mono();
    run("sub");
    EXPECT_LT(zclock_mono() - begin, time_out / 2);
}

TEST_F(terminal_commands_test, without_an_identity_frame_no_text_is_sent)
{
    m_gateway.add_node(hex("00 01 02 03 04 05 1A 2B"));
    stall();
    for (const char* command :
         {"h",    "pcl",  "pn",      "pnf",      "info",     "dbg",         "dbg raw y", "dbg x",
          "sub",  "sub-", "grep x",  "grep (",   "grep-",    "reboot 1a2b", "reboot",    "del 1a2b",
          "quit", "fw",   "fw list", "fw get x", "fw del 1", "huh"})
        run(command);
    EXPECT_EQ(zhashx_size(rtls_gateway_get_terminal_clients(m_gateway.handle())), 1u) << "quit";
    EXPECT_EQ(nodes_container_get_size(m_gateway.nodes()), 1u) << "del";
    EXPECT_EQ(errors(), strings{}) << "a download was tried";
    // The socket is in step: the next pair arrives as it is.
    ASSERT_EQ(zsock_connect(m_terminal.get(), "%s", m_endpoint.c_str()), 0);
    EXPECT_EQ(finish_and_take(), strings{});
}

} // namespace rtls
