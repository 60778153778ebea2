#include "http/responder.h"

#include "http/http_door.h"
#include "http/json_text.h"
#include "http/request_head.h"

#include <httplib.h>

#include <strings.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace rtls {

static constexpr char cache_rule[] = "no-store"; // what was true a second ago is of no use to anybody

page refusal_page(int status, std::string_view reason)
{
    return {status, json_text({{"error", reason}, {"status", status}})};
}

static const char* status_text(int status)
{
    switch (status) {
    case 400:
        return "Bad Request";
    case 405:
        return "Method Not Allowed";
    case 408:
        return "Request Timeout";
    case 431:
        return "Request Header Fields Too Large";
    default:
        return "Service Unavailable";
    }
}

std::string refusal_bytes(int status, std::string_view reason)
{
    const page refused = refusal_page(status, reason);
    return "HTTP/1.1 " + std::to_string(status) + ' ' + status_text(status) +
           "\r\nContent-Type: " + json_type + "\r\nContent-Length: " + std::to_string(refused.body.size()) +
           (status == 405 ? "\r\nAllow: GET, HEAD" : "") + "\r\nConnection: close\r\n\r\n" + refused.body;
}

static constexpr size_t requests_of_connection = 1'000'000; // what clients are told: there is no bound

// Takes the same time whatever differs.
static bool is_the_token(std::string_view given, std::string_view wanted)
{
    unsigned difference = given.size() == wanted.size() ? 0 : 1;
    for (size_t i = 0; i < given.size() && !wanted.empty(); ++i)
        difference |= static_cast<unsigned char>(given[i] ^ wanted[i % wanted.size()]);
    return difference == 0;
}

static constexpr char authorization_header[] = "Authorization";
static constexpr std::string_view head_of_401 = "HTTP/1.1 401 ";

// The token of "Bearer <token>", whose scheme may be written in any case (RFC 9110 11.1); "" when there is none.
static std::string token_of(const std::string& authorization)
{
    constexpr std::string_view scheme = "Bearer ";
    if (strncasecmp(authorization.c_str(), scheme.data(), scheme.size()) != 0)
        return {};
    const size_t begin = authorization.find_first_not_of(' ', scheme.size());
    return begin == std::string::npos ? std::string{} : authorization.substr(begin);
}

// A header may come in several lines, which mean the same as one with commas (RFC 9110 5.3).
static std::string all_values(const httplib::Request& request, const char* name)
{
    std::string values;
    const auto [begin, end] = request.headers.equal_range(name);
    for (auto header = begin; header != end; ++header)
        values.append(values.empty() ? "" : ", ").append(header->second);
    return values;
}

namespace {

// What the library reads a request from, and writes its answer to: memory.
class memory_stream : public httplib::Stream {
public:
    explicit memory_stream(std::string_view input) : m_input(input) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* bytes, size_t size) override
    {
        const size_t count = m_input.copy(bytes, size);
        m_input.remove_prefix(count);
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* bytes, size_t size) override
    {
        m_output.append(bytes, size);
        return static_cast<ssize_t>(size);
    }
    // The door has looked at the peer long before.
    void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    socket_t socket() const override { return INVALID_SOCKET; }

    std::string take_output() { return std::move(m_output); }

private:
    std::string_view m_input;
    std::string m_output;
};

} // namespace

// The library's server without its sockets and threads: it parses, and puts answers together. Its own routing
// matches regular expressions, by recursion, against what strangers send: the table is ours.
class responder::library : public httplib::Server {
public:
    library(std::vector<page_row> pages, std::string token)
        : m_pages(std::move(pages)), m_token(std::move(token))
    {
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& answer) {
            send(page_for(request, answer), answer);
            return HandlerResponse::Handled;
        });
        set_error_handler([](const httplib::Request& /*request*/, httplib::Response& answer) {
            if (!answer.body.empty())
                return;
            const page refused = refusal_page(answer.status, "the library refuses this request");
            answer.set_content(refused.body, refused.type);
        });
        set_keep_alive_max_count(requests_of_connection);
        set_keep_alive_timeout(http_times{}.silence_ms / 1000);
    }

    http_answer answer(const request_head& head)
    {
        memory_stream stream{head.text};
        bool is_closed = false;
        bool is_read = false;
        const auto add_verbatim = [&](httplib::Request& request) {
            is_read = true;
            request.headers.emplace(authorization_header, head.authorization);
        };
        const bool is_answered = process_request(stream, head.has_body, is_closed, add_verbatim);
        http_answer made{stream.take_output(), is_answered && !is_closed && !head.has_body, {}};
        if (!is_read)
            made.refused = http_refusal::malformed;
        else if (made.bytes.starts_with(head_of_401)) // no page says that
            made.refused = http_refusal::token;
        return made;
    }

private:
    static void send(page&& made, httplib::Response& answer)
    {
        answer.status = made.status;
        answer.set_header("Cache-Control", cache_rule);
        answer.set_header("X-Content-Type-Options", "nosniff");
        answer.body = std::move(made.body); // set_content() would copy it
        answer.set_header("Content-Type", made.type);
    }

    bool is_admitted(const httplib::Request& request) const
    {
        return m_token.empty() ||
               is_the_token(token_of(request.get_header_value(authorization_header)), m_token);
    }

    page page_for(const httplib::Request& request, httplib::Response& answer) const
    {
        if (!is_admitted(request)) {
            answer.set_header("WWW-Authenticate", "Bearer");
            return refusal_page(401, "a bearer token is needed");
        }
        const page_row* row = find(request.path);
        if (!row)
            return refusal_page(404, "there is no such page");
        return made(*row, request);
    }

    static page made(const page_row& row, const httplib::Request& request)
    try {
        return row.make(
            {request.path.substr(row.path.size()), all_values(request, "Accept"), request.params});
    } catch (const std::bad_alloc&) {
        return refusal_page(503, "memory is short");
    } catch (const std::exception&) {
        return refusal_page(500, "the page could not be made");
    }

    const page_row* find(const std::string& path) const
    {
        const auto found = std::ranges::find_if(m_pages, [&](const page_row& row) {
            return row.path.ends_with('/') ? path.size() > row.path.size() && path.starts_with(row.path)
                                           : path == row.path;
        });
        return found == m_pages.end() ? nullptr : &*found;
    }

    const std::vector<page_row> m_pages;
    const std::string m_token;
};

responder::responder(std::vector<page_row> pages, std::string token)
    : m_library(std::make_unique<library>(std::move(pages), std::move(token)))
{
}

responder::~responder() = default;

http_answer responder::answer(std::string_view bytes)
{
    const std::optional<request_head> head = read_request_head(bytes);
    if (!head)
        return {refusal_bytes(400, "this is no request of HTTP/1.1"), false, http_refusal::malformed};
    if (!head->text.starts_with("GET ") && !head->text.starts_with("HEAD "))
        return {refusal_bytes(405, "nothing but GET and HEAD is served"), false, http_refusal::method};
    return m_library->answer(*head);
}

} // namespace rtls
