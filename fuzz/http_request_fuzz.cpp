// Whatever a client sends to the HTTP port: one whole answer with the length that it states, JSON by the letter
// where it says so, nothing of the request in its head, and no page without the token where there is one. And
// however it is cut, and however many requests come in a row, each of them is taken whole and in its turn.
#include "base/unique_fd.h"
#include "fuzzing.h"
#include "http/connection.h"
#include "http/json_text.h"
#include "http/metrics_text.h"
#include "http/node_query.h"
#include "http/request_head.h"
#include "http/responder.h"
#include "strict_json.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rtls {

using fuzzing::require;

namespace {

namespace what {
constexpr unsigned is_query = 0x01;  // the input is what follows "/api/v1/nodes?"
constexpr unsigned is_path = 0x02;   // ... "/api/v1/nodes/"
constexpr unsigned is_header = 0x04; // ... the request line
constexpr unsigned is_head = 0x08;   // asked by HEAD
constexpr unsigned has_token = 0x10;
constexpr unsigned gives_token = 0x20;
constexpr unsigned is_accept = 0x40; // ... the header Accept
constexpr unsigned in_pieces =
    0x80; // the input comes to a connection, cut as it says; each request is answered
} // namespace what

constexpr char token[] = "sesame";
constexpr char end_of_line[] = "\r\n";

page nodes_page_for(const page_request& request)
{
    std::string fault;
    const auto query = node_query::read(request.parameters, fault);
    if (!query) {
        require(!fault.empty());
        return refusal_page(400, fault);
    }
    require(query->limit >= 1 && query->limit <= 1000);
    return {200, json_text({{"limit", query->limit}, {"text", query->text}})};
}

// A range that names neither format changes nothing.
void check_format(const std::string& accept)
{
    require(wanted_format(accept) == wanted_format("x/y;q=0.5, " + accept));
    require(wanted_format(accept) == wanted_format("\t" + accept + " "));
}

page echo_page(const page_request& request)
{
    check_format(request.accept);
    require(!request.rest.empty());
    const auto mac = parse_mac(request.rest);
    return {200, json_text({{"rest", request.rest}, {"accept", request.accept}, {"mac", mac.has_value()}})};
}

std::vector<page_row> pages()
{
    return {{"/livez",
             [](const page_request& /*request*/) {
                 return page{200, json_text({{"live", true}})};
             }},
            {"/api/v1/nodes", nodes_page_for},
            {"/api/v1/nodes/", echo_page}};
}

std::string request_of(unsigned options, std::string text)
{
    const std::string method = (options & what::is_head) != 0 ? "HEAD " : "GET ";
    if ((options & (what::is_query | what::is_path)) != 0)
        text =
            method + "/api/v1/nodes" + ((options & what::is_query) != 0 ? "?" : "/") + text + " HTTP/1.1\r\n";
    else if ((options & what::is_accept) != 0)
        text = method + "/api/v1/nodes/x HTTP/1.1\r\nAccept: " + text + end_of_line;
    else if ((options & what::is_header) != 0)
        text = method + "/livez HTTP/1.1\r\n" + text + end_of_line;
    if ((options & what::gives_token) != 0)
        text += std::string{"Authorization: Bearer "} + token + end_of_line;
    return text + end_of_line;
}

// What is kept of a head is a head, of which the same is kept.
void check_head(const std::string& head)
{
    const auto kept = read_request_head(head);
    if (!kept)
        return;
    // A blank more for each header that had none behind its colon.
    require(head.size() <= request_head_limit && kept->text.size() <= head.size() + request_headers_limit);
    const auto again = read_request_head(kept->text);
    require(again ? again->text == kept->text && !again->has_body : kept->text.size() > request_head_limit);
    for (size_t at = kept->text.find(end_of_line) + 2; at + 2 < kept->text.size();) {
        const std::string line = kept->text.substr(at, kept->text.find(end_of_line, at) - at);
        require(line.starts_with("accept: ") || line.starts_with("authorization: ") ||
                line.starts_with("connection: "));
        at += line.size() + 2;
    }
}

struct answer_head {
    int status = 0;
    size_t length = SIZE_MAX;
    bool is_json = false;
};

answer_head read_answer_head(const std::string& head)
{
    answer_head read;
    require(head.starts_with("HTTP/1.1 ") && head.size() > 13 && head[12] == ' ');
    read.status = std::stoi(head.substr(9, 3));
    for (size_t at = head.find(end_of_line) + 2; at < head.size();) {
        const std::string line = head.substr(at, head.find(end_of_line, at) - at);
        for (const char c : line)
            require(c >= ' ' && c < 0x7F); // what we say ourselves
        if (line.starts_with("Content-Length: ")) {
            require(read.length == SIZE_MAX);
            read.length = std::stoul(line.substr(16));
        }
        read.is_json = read.is_json || line == "Content-Type: application/json";
        at += line.size() + 2;
    }
    return read;
}

void check_answer(const std::string& bytes, bool is_by_head, bool is_forbidden)
{
    const size_t end = bytes.find("\r\n\r\n");
    require(end != std::string::npos);
    const answer_head head = read_answer_head(bytes.substr(0, end + 2));
    const std::string body = bytes.substr(end + 4);
    require(head.status == 200 || (head.status >= 400 && head.status < 600));
    require(!is_forbidden || head.status != 200);
    require(head.length == body.size() || (is_by_head && body.empty()));
    if (head.is_json && !body.empty())
        require(fuzzing::is_strict_json(body));
}

// A client's end, and a connection that serves the other.
class played_client {
public:
    explicit played_client(std::string bytes) : m_bytes(std::move(bytes)), m_ends(open_ends()) {}

    // Sends the next bytes. False when the connection has refused them.
    bool send_next(size_t size)
    {
        size = std::min(size, m_bytes.size() - m_sent);
        require(write(m_client.get(), m_bytes.data() + m_sent, size) == static_cast<ssize_t>(size));
        m_sent += size;
        while (has_input() || m_connection.events() == POLLOUT)
            if (!serve())
                return false;
        require(request_head_size(rest()) == 0);
        return true;
    }
    bool is_done() const { return m_sent == m_bytes.size(); }

private:
    // The first is the connection's.
    std::array<int, 2> open_ends()
    {
        std::array<int, 2> ends{};
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0);
        m_client = unique_fd{ends[1]};
        return ends;
    }
    bool has_input() const
    {
        int waiting = 0;
        require(ioctl(m_ends[0], FIONREAD, &waiting) == 0);
        return waiting > 0;
    }
    std::string_view rest() const { return std::string_view{m_bytes}.substr(m_taken, m_sent - m_taken); }

    // Heads come whole and in their order, whatever the cuts.
    bool serve()
    {
        std::array<char, 4096> answers;
        while (read(m_client.get(), answers.data(), answers.size()) > 0) {
        }
        const auto head = m_connection.serve(0);
        if (const auto why = m_connection.take_refusal()) {
            require(why == http_refusal::too_long && rest().size() >= request_head_limit && !head);
            return false;
        }
        require(!m_connection.has_ended());
        if (!head)
            return true;
        require(!head->empty() && *head == rest().substr(0, request_head_size(rest())));
        m_taken += head->size();
        m_connection.answer({"answer", true, {}}, 0);
        return true;
    }

    const std::string m_bytes;
    size_t m_sent = 0;
    size_t m_taken = 0; // as heads
    unique_fd m_client;
    const std::array<int, 2> m_ends;
    connection m_connection{unique_fd{m_ends[0]}, 1, http_times{}, 0};
};

void check_in_pieces(fuzzing::input& input)
{
    const std::vector<uint8_t> cuts = input.copy(input.u8() % 16);
    played_client client{input.text(SIZE_MAX)};
    for (size_t i = 0; !client.is_done(); ++i)
        if (!client.send_next(cuts.empty() ? SIZE_MAX
                                           : size_t{1} + cuts[i % cuts.size()] * (i < 64 ? 1 : 64)))
            return;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static responder open_door{pages(), ""};
    static responder closed_door{pages(), token};
    fuzzing::input input{data, size};
    const unsigned options = input.u8();
    if ((options & what::in_pieces) != 0) {
        check_in_pieces(input);
        return 0;
    }
    const std::string bytes = request_of(options, input.text(size));
    const size_t head_size = request_head_size(bytes);
    require(head_size == bytes.find("\r\n\r\n") + 4 ||
            (head_size == 0 && bytes.find("\r\n\r\n") == std::string::npos));
    if (head_size == 0)
        return 0;
    const std::string head = bytes.substr(0, head_size);
    check_head(head);
    const bool has_token = (options & what::has_token) != 0;
    const http_answer answer = (has_token ? closed_door : open_door).answer(head);
    check_answer(answer.bytes, head.starts_with("HEAD "), has_token && head.find(token) == std::string::npos);
    return 0;
}

} // namespace rtls
