#include "doors/failure.h"
#include "doors/terminal_session.h"
#include "doors/terminal_texts.h"
#include "rtls-ctl/figures.h"
#include "rtls-ctl/follow.h"
#include "rtls-ctl/update_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace ctl {

using testing::ElementsAre;
using testing::HasSubstr;

static constexpr char network[] = "####### Connected Nodes\n"
                                  "Bridge MAC:02ab34cd560:0b001 ip4:127.0.0.1:56744\n"
                                  "02ab34cd560:01a2b fix 30 par:00d0e sw:01020304 rgf:   5 ttl:300 sl:03 "
                                  "xyz:      -5,       6,       7:-80  "
                                  "ip:   fd00::11:2233:4400:1a2b IP address is duplicated! dtx: no\n"
                                  "02ab34cd560:02001 c p 00 par:00000 sw:0a0b0c0d rgf: 255 ttl: 65 sl:ff xyz:"
                                  "-2147483648,2147483647,  -32768:327670 ip:FW fd00::1 dtx:yes\n"
                                  "Bridge MAC:00000000000:00000 ip4:10.0.0.7:1\n"
                                  "####### Floating nodes\n"
                                  "02ab34cd560:04001 brg 10 par:00000 sw:01020304 rgf:   5 ttl:299 sl:03 "
                                  "xyz:    1000,   -2000,     300:-40  "
                                  "ip:   fd00::4 dtx: no\n"
                                  "####### Expired nodes\n"
                                  "02ab34cd560:03001 unk 10 par:00000 sw:01020304 rgf:   5 ttl:  0 sl:03 "
                                  "xyz:    1000,   -2000,     300:-40  "
                                  "ip:   fd00::3 act:11-22 10:20:30 (101:00:05) dtx: no\n"
                                  "##\n";

static constexpr char operators[] = "####### Terminal clients\n"
                                    "+ip:127.0.0.1:5000 sub:0 grep:--\n"
                                    " ip:127.0.0.1:5001 sub:1 grep:ab+c\n"
                                    " ip:0.0.0.0:0 sub:0 grep:--\n"
                                    "####### WIN clients:\n"
                                    " ip:127.0.0.1:56744\n"
                                    "##\n";

static constexpr char images[] =
    "index     git id      crc32     size   page size   pages   brd version   brd revision   max pages\n"
    "    0   CAFE0001   8DB50018     1000         128       8             3              4          64\n"
    "    4          1          2  1000000           0       0             0              0           0\n";

static constexpr char sections[] =
    "\traw n\n\tparsing n\n\tterminal n\n\twin y\n\tdiscovery n\n\tdevelop n\n\tul_tdoa n\n";
static constexpr char versions[] =
    "GW Version     : 8.6.3\nZMQ version    : 4.3.4\nCZMQ version   : 4.2.1\n\n";

// --- Endings

TEST(ctl_endings, an_answer_is_whole_at_its_last_byte_and_not_before)
{
    const struct {
        const char* given;
        std::string answer;
        ending_rule rule;
    } cases[] = {
        {"a line", "Command sent successfully!\n", end_of_line},
        {"nodes", network, end_of_listing},
        {"operators", operators, end_of_listing},
        {"a listing that is refused", "Unknown command. Type \"h\" or \"help\" for help.\n", end_of_listing},
        {"sections", sections, end_of_sections},
        {"a section that is refused", "Incorrect parameter!\n", end_of_sections},
        {"versions", versions, end_of_versions},
        {"a filter", "GREP: abc\n", end_of_filter_answer},
        {"a filter that is refused", "GREP: cannot set regexp:  Success\nGREP: old\n", end_of_filter_answer},
        {"the mark behind a table", std::string{images} + "GREP: -- undefined --\n", end_of_filter_answer},
    };
    for (const auto& c : cases)
        for (size_t size = 0; size <= c.answer.size(); ++size) {
            SCOPED_TRACE(testing::Message() << c.given << ", " << size << " bytes");
            const bool is_whole = size == c.answer.size();
            EXPECT_EQ(c.rule(c.answer.substr(0, size)), is_whole ? size : std::string::npos);
        }
}

// --- Listings

TEST(ctl_listing, nodes_have_the_names_and_values_of_the_http_port)
{
    const json found = parse_network(network);
    ASSERT_EQ(found["nodes"].size(), 4u);
    EXPECT_EQ(found["nodes"][0],
              json::parse(R"({"mac": "02ab34cd560:01a2b", "role": "fixed", "status": "connected",
        "bridge": "02ab34cd560:0b001", "parent": "00d0e", "address": "fd00::11:2233:4400:1a2b",
        "address_is_forwarded": false, "is_direct": false, "lifetime_s": 300, "last_activity": null,
        "software": "01020304", "state": 48, "ranging_frequency": 5, "sublocation": 3, "x": -5, "y": 6, "z": 7,
        "z_offset": -80})"));
    EXPECT_EQ(found["nodes"][1], json::parse(R"({"mac": "02ab34cd560:02001", "role": "configuration pending",
        "status": "connected", "bridge": "02ab34cd560:0b001", "parent": "00000", "address": "fd00::1",
        "address_is_forwarded": true, "is_direct": true, "lifetime_s": 65, "last_activity": null,
        "software": "0a0b0c0d", "state": 0, "ranging_frequency": 255, "sublocation": 255, "x": -2147483648,
        "y": 2147483647, "z": -32768, "z_offset": 327670})"));
    EXPECT_EQ(found["nodes"][2]["status"], "floating");
    EXPECT_EQ(found["nodes"][2]["bridge"], nullptr);
    EXPECT_EQ(found["nodes"][3]["status"], "expired");
    EXPECT_EQ(found["nodes"][3]["role"], "unknown");
}

TEST(ctl_listing, bridges_count_their_nodes)
{
    EXPECT_EQ(parse_network(network)["bridges"], json::parse(R"([
        {"id": null, "mac": "02ab34cd560:0b001", "address": "127.0.0.1", "port": 56744, "nodes": 2},
        {"id": null, "mac": null, "address": "10.0.0.7", "port": 1, "nodes": 0}])"));
}

TEST(ctl_listing, operators_are_the_others)
{
    EXPECT_EQ(parse_operators(operators), json::parse(R"([
        {"address": "127.0.0.1", "port": 5001, "subscribed": true, "filter": "ab+c", "waits_for_image": null},
        {"address": "0.0.0.0", "port": 0, "subscribed": false, "filter": null, "waits_for_image": null}])"));
}

TEST(ctl_listing, images_sections_and_versions)
{
    const json found = parse_images(images);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0], json::parse(R"({"index": 0, "git_id": "CAFE0001", "crc32": "8DB50018", "size": 1000,
        "page_size": 128, "pages": 8, "board_version": 3, "board_revision": 4, "maximum_pages": 64})"));
    EXPECT_EQ(found[1]["git_id"], "00000001");
    EXPECT_EQ(parse_sections(sections)["win"], true);
    EXPECT_EQ(parse_sections(sections).size(), 7u);
    EXPECT_EQ(parse_version(versions), "8.6.3");
}

// A line that is cut, or has more in it, is never taken for another one.
TEST(ctl_listing, lines_that_cannot_be_read_are_refused)
{
    const std::string whole = network;
    const size_t begin = whole.find("02ab34cd560:01a2b");
    const size_t end = whole.find('\n', begin);
    for (size_t cut = begin + 1; cut < end; ++cut) {
        const std::string damaged = whole.substr(0, cut) + whole.substr(end);
        EXPECT_THROW(parse_network(damaged), failure) << cut - begin << " bytes of the line";
    }
    for (const char* text : {"", "Unknown command.\n", "####### Connected Nodes", "##\n"})
        EXPECT_THROW(parse_network(text), failure) << text;
    EXPECT_THROW(parse_images("INDEX are missing!\n"), failure);
    EXPECT_THROW(parse_sections("Incorrect parameter!\n"), failure);
}

TEST(ctl_listing, the_terminals_own_words_are_told_without_their_escapes)
{
    try {
        parse_operators("\033[2Jgo away\nand more\n");
        FAIL();
    } catch (const failure& why) {
        EXPECT_EQ(why.status(), exit_status::refused);
        EXPECT_STREQ(why.what(), "the terminal answers: \\x1b[2Jgo away");
    }
}

// --- A session, with a terminal that answers as it is told to

namespace {

// Accepts one connection; `serve` has it. Ends with the connection.
class fake_terminal {
public:
    template <typename Serve>
    explicit fake_terminal(Serve serve)
    {
        m_listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(m_listener, reinterpret_cast<sockaddr*>(&address), size);
        listen(m_listener, 1);
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size);
        m_where = {"127.0.0.1", ntohs(address.sin_port)};
        m_thread = std::thread{[this, serve] {
            const int fd = accept(m_listener, nullptr, nullptr);
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            serve(fd);
            close(fd);
        }};
    }
    ~fake_terminal()
    {
        m_thread.join();
        close(m_listener);
    }
    const endpoint& where() const { return m_where; }

private:
    int m_listener;
    endpoint m_where;
    std::thread m_thread;
};

} // namespace

// What arrives in one piece; empty at the end.
static std::string read_packet(int fd)
{
    char buffer[4096];
    const ssize_t size = read(fd, buffer, sizeof buffer);
    return {buffer, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

static void write_all(int fd, const std::string& text)
{
    EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

static constexpr seconds long_enough{20};

TEST(ctl_session, a_command_is_a_packet_and_its_answer_may_come_byte_by_byte)
{
    std::vector<std::string> packets;
    {
        const fake_terminal terminal{[&packets](int fd) {
            for (const std::string answer : {sections, operators, "GREP: -- undefined --"}) {
                packets.push_back(read_packet(fd));
                for (const char byte : answer)
                    write_all(fd, {byte});
            }
            write_all(fd, "\nand more"); // which is nobody's answer
            read_packet(fd);
        }};
        terminal_session session{terminal.where(), long_enough};
        EXPECT_EQ(session.ask("dbg", end_of_sections), sections);
        EXPECT_EQ(session.ask("pcl", end_of_listing), operators);
        EXPECT_EQ(session.ask("grep", end_of_filter_answer), "GREP: -- undefined --\n");
    }
    EXPECT_THAT(packets, ElementsAre("dbg\n", "pcl\n", "grep\n"));
}

static exit_status status_of(const std::function<void()>& act, const char* text)
{
    try {
        act();
    } catch (const failure& why) {
        EXPECT_THAT(why.what(), HasSubstr(text));
        return why.status();
    }
    return exit_status::done;
}

TEST(ctl_session, who_closes_without_a_word_is_unreachable)
{
    const fake_terminal terminal{[](int fd) { shutdown(fd, SHUT_RDWR); }};
    EXPECT_EQ(status_of(
                  [&] {
                      terminal_session session{terminal.where(), long_enough};
                      session.ask("info", end_of_versions);
                  },
                  "127.0.0.1"),
              exit_status::unreachable);
}

TEST(ctl_session, who_says_half_of_it_is_waited_for_in_vain)
{
    const fake_terminal terminal{[](int fd) {
        read_packet(fd);
        write_all(fd, std::string{network}.substr(0, 200));
        read_packet(fd);
    }};
    terminal_session session{terminal.where(), seconds{0.05}};
    EXPECT_EQ(
        status_of([&] { session.ask("pnf", end_of_listing); }, "has not answered \"pnf\" within 0.05 s"),
        exit_status::timed_out);
}

TEST(ctl_session, nobody_at_the_port_is_unreachable)
{
    endpoint where;
    {
        const fake_terminal terminal{[](int) {}};
        where = terminal.where();
        const terminal_session last{where, long_enough};
    }
    EXPECT_EQ(status_of(
                  [&] {
                      terminal_session{where, long_enough};
                  },
                  "no terminal answers at 127.0.0.1"),
              exit_status::unreachable);
}

TEST(ctl_session, what_is_no_packet_of_its_own_is_not_sent)
{
    std::string received;
    {
        const fake_terminal terminal{[&received](int fd) { received = read_packet(fd); }};
        terminal_session session{terminal.where(), long_enough};
        for (const std::string& command :
             {std::string(1400, 'x'), std::string{"pn\ninfo"}, std::string{"pn\0", 3}})
            EXPECT_EQ(status_of([&] { session.ask(command, end_of_line); }, "one line"), exit_status::usage);
    }
    EXPECT_EQ(received, "");
}

// --- The debug stream

static constexpr char first_line[] =
    "\033[36m11-22 10:20:30.123\033[0m \033[35mSLIP:\033[0m MSG_PANID_REQ 01\n";

static std::vector<std::string> lines_of(const std::string& stream, size_t piece)
{
    line_cutter cutter;
    std::vector<std::string> lines;
    for (size_t at = 0; at < stream.size(); at += piece) {
        cutter.add(stream.substr(at, piece));
        while (const auto line = cutter.next())
            lines.push_back(*line);
    }
    return lines;
}

TEST(ctl_debug_lines, are_the_same_however_they_arrive)
{
    const std::string cut_by_gateway(2047, 'x');
    const std::string longest = std::string(2046, 'y') + "\n";
    const std::string stream = std::string{first_line} + cut_by_gateway + longest + first_line + "half";
    for (const size_t piece : {1u, 2u, 100u, 2047u, 2048u, 100'000u}) {
        SCOPED_TRACE(piece);
        const auto lines = lines_of(stream, piece);
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[0] + "\n", first_line);
        EXPECT_EQ(lines[1], cut_by_gateway);
        EXPECT_EQ(lines[2] + "\n", longest);
        EXPECT_EQ(lines[3] + "\n", first_line);
    }
}

TEST(ctl_debug_lines, lose_their_colours_and_what_peers_put_into_them)
{
    const debug_line line =
        read_debug_line("\033[36m11-22 10:20:30.123\033[0m \033[35mCONS:\033[0m rcvd \"\033[2J\"");
    EXPECT_EQ(line.time, "11-22 10:20:30.123");
    EXPECT_EQ(line.channel, "CONS");
    EXPECT_EQ(line.text, "rcvd \"\\x1b[2J\"");
    EXPECT_EQ(read_debug_line("further\t").text, "further\\x09");
    EXPECT_EQ(read_debug_line("further").time, "");
}

TEST(ctl_debug_lines, only_plain_patterns_are_given_to_the_gateway)
{
    EXPECT_TRUE(is_plain("PANID"));
    for (const char* pattern : {"", "a b", "a.b", "^a", "a|b", "SLIP:", "(", "caf\xc3\xa9", "MSG_X"})
        EXPECT_FALSE(is_plain(pattern)) << pattern;
}

// --- Figures

TEST(ctl_figures, are_the_samples_with_these_names)
{
    const char page[] = "# HELP a_total What it is.\n# TYPE a_total counter\na_total{reason=\"x y\"} 12\n"
                        "b_seconds 0.25\nc 1e+3\nd NaN\n\n";
    EXPECT_EQ(read_figures(page, {}).size(), 4u);
    EXPECT_EQ(
        read_figures(page, {"x y", "seconds"}),
        json::parse(
            R"([{"metric": "a_total{reason=\"x y\"}", "value": 12}, {"metric": "b_seconds", "value": 0.25}])"));
    EXPECT_EQ(read_figures(page, {"d"})[1]["value"], "NaN");
    EXPECT_TRUE(read_figures(page, {"nothing"}).empty());
}

// --- Updates

static json node(const char* mac, const char* software, const char* status = "connected")
{
    return {{"mac", mac}, {"software", software}, {"status", status}};
}

TEST(ctl_update_watch, all_that_live_are_waited_for_and_those_that_go_as_well)
{
    update_watch watch{"0000000b"};
    EXPECT_FALSE(watch.is_complete()) << "nobody is not all";
    watch.look(
        {node("0:00001", "0000000a"), node("0:00002", "0000000b"), node("0:00003", "0000000a", "expired")});
    EXPECT_EQ(watch.total(), 2u);
    EXPECT_EQ(watch.done(), 1u);
    watch.look(
        json::array({node("0:00001", "0000000a", "expired"), node("0:00004", "0000000a", "floating")}));
    EXPECT_EQ(watch.total(), 3u);
    EXPECT_EQ(watch.missing(),
              json::array({node("0:00001", "0000000a", "expired"), node("0:00004", "0000000a", "floating")}));
    watch.look(json::array({node("0:00001", "0000000b")}));
    EXPECT_EQ(watch.missing(), json::array({node("0:00004", "0000000a", "gone")}));
    watch.look(json::array({node("0:00004", "0000000b")}));
    EXPECT_TRUE(watch.is_complete());
}

TEST(ctl_update_watch, those_that_are_named_are_waited_for_alone)
{
    update_watch watch{"0000000b", {"0001", "0009"}};
    watch.look(json::array({node("0:00001", "0000000b", "expired"), node("0:00002", "0000000a")}));
    EXPECT_EQ(watch.total(), 2u);
    EXPECT_EQ(watch.missing(),
              json::parse(R"([{"mac": "0009", "software": null, "status": "never heard"}])"));
    watch.look(json::array({node("0:00001", "0000000b"), node("0:00009", "0000000b")}));
    EXPECT_TRUE(watch.is_complete());
}

TEST(ctl_update_watch, the_bar_fits_any_width)
{
    EXPECT_EQ(progress_line(5, 10, "0102a0ff", 33, 0), "5 of 10 nodes run 0102a0ff, 33 s");
    EXPECT_EQ(progress_line(5, 10, "0102a0ff", 33, 45), "[#####.....] 5 of 10 nodes run 0102a0ff, 33 s");
    for (size_t width = 1; width < 200; ++width)
        for (const size_t done : {0u, 3u, 10u})
            EXPECT_LE(progress_line(done, 10, "0102a0ff", 33, width).size(), width);
}

} // namespace ctl
