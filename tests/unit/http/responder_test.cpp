#include "http/responder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

namespace rtls {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

static page echo(const page_request& request)
{
    std::string body = "rest=" + request.rest + " accept=" + request.accept;
    for (const auto& [name, value] : request.parameters)
        body.append(" ").append(name).append("=").append(value);
    return {200, body, "text/plain"};
}

static responder& pages()
{
    static responder made{{{"/page", echo},
                           {"/under/", echo},
                           {"/broken", [](const page_request&) -> page { throw std::runtime_error("it"); }},
                           {"/short", [](const page_request&) -> page { throw std::bad_alloc(); }}},
                          ""};
    return made;
}

static http_answer answer_to(const std::string& target, const std::string& headers = "")
{
    return pages().answer("GET " + target + " HTTP/1.1\r\n" + headers + "\r\n");
}

TEST(responder, gives_pages_what_was_asked)
{
    const http_answer answer = answer_to("/page?b=c%20d&e&f=%41+B#g", "Accept: text/plain\r\n");
    EXPECT_THAT(answer.bytes, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer.bytes, HasSubstr("Content-Type: text/plain\r\n"));
    EXPECT_THAT(answer.bytes, HasSubstr("rest= accept=text/plain b=c d e= f=A B"));
    EXPECT_TRUE(answer.keeps_open);
}

TEST(responder, joins_the_lines_of_a_header)
{
    const http_answer answer = answer_to("/page", "Accept: a/b;q=0.1\r\nHost: x\r\naccept: c/d\r\n");
    EXPECT_THAT(answer.bytes, HasSubstr("accept=a/b;q=0.1, c/d"));
}

TEST(responder, finds_pages_by_their_whole_path_or_its_beginning)
{
    EXPECT_THAT(answer_to("/under/a%3Ab/c").bytes, HasSubstr("rest=a:b/c "));
    for (const char* path : {"/", "/pag", "/pages", "/page/", "/under", "/under/", "//page", "/PAGE"})
        EXPECT_THAT(answer_to(path).bytes, StartsWith("HTTP/1.1 404 ")) << path;
}

// As it stands there: clients do not encode it.
TEST(responder, takes_the_token_to_the_letter)
{
    responder closed{{{"/page", echo}}, "a%41b"};
    const auto status_with = [&](const std::string& authorization) {
        const std::string bytes =
            closed.answer("GET /page HTTP/1.1\r\nAuthorization: " + authorization + "\r\n\r\n").bytes;
        return bytes.substr(0, bytes.find(' ', 9));
    };
    for (const char* right : {"Bearer a%41b", "bearer a%41b", "BEARER a%41b", "Bearer   a%41b"})
        EXPECT_EQ(status_with(right), "HTTP/1.1 200") << right;
    for (const char* wrong : {"Bearer aAb", "Bearer a%2541b", "Bearer A%41B", "Bearer a%41", "Bearer a%41b c",
                              "Bearer", "Bearer ", "Basic a%41b", "a%41b", "Bearera%41b", ""})
        EXPECT_EQ(status_with(wrong), "HTTP/1.1 401") << wrong;
    EXPECT_THAT(closed.answer("GET /page HTTP/1.1\r\n\r\n").bytes, StartsWith("HTTP/1.1 401 "));
}

TEST(responder, says_when_the_connection_ends)
{
    EXPECT_TRUE(answer_to("/page").keeps_open);
    EXPECT_FALSE(answer_to("/page", "Connection: close\r\n").keeps_open);
    EXPECT_FALSE(answer_to("/page", "Content-Length: 5\r\n").keeps_open);
    EXPECT_FALSE(pages().answer("GET /page HTTP/1.0\r\n\r\n").keeps_open);
    EXPECT_FALSE(pages().answer("nonsense\r\n\r\n").keeps_open);
}

TEST(responder, answers_for_a_page_that_cannot_be_made)
{
    const http_answer answer = answer_to("/broken");
    EXPECT_THAT(answer.bytes, StartsWith("HTTP/1.1 500 "));
    EXPECT_THAT(answer.bytes, HasSubstr(R"({"error":"the page could not be made","status":500})"));
    const http_answer later = answer_to("/short");
    EXPECT_THAT(later.bytes, StartsWith("HTTP/1.1 503 "));
    EXPECT_THAT(later.bytes, HasSubstr(R"({"error":"memory is short","status":503})"));
}

TEST(responder, gives_no_body_to_head)
{
    const http_answer answer = pages().answer("HEAD /page HTTP/1.1\r\n\r\n");
    EXPECT_THAT(answer.bytes, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer.bytes, EndsWith("\r\n\r\n"));
    EXPECT_THAT(answer.bytes, Not(HasSubstr("rest=")));
}

TEST(responder, answers_one_head_once_whatever_stands_in_it)
{
    const http_answer answer = answer_to("/page", "Range: bytes=0-,0-,0-\r\nExpect: 100-continue\r\n"
                                                  "Accept-Encoding: gzip\r\nHost: a\r\nHost: b\r\n");
    EXPECT_THAT(answer.bytes, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(answer.bytes.find("HTTP/1.1", 1), std::string::npos);
}

TEST(responder, refuses_with_json)
{
    const std::string body = "{\"error\":\"no \\\"room\\\"\xEF\xBF\xBD\",\"status\":431}\n";
    EXPECT_EQ(refusal_bytes(431, "no \"room\"\xFF"),
              "HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Type: application/json\r\n"
              "Content-Length: " +
                  std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
}

} // namespace rtls
