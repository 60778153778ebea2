#include "http/request_head.h"

#include <gtest/gtest.h>

#include <string>

namespace rtls {

TEST(request_head, ends_with_the_empty_line)
{
    const std::string head = "GET / HTTP/1.1\r\nA: b\r\n\r\n";
    for (size_t size = 0; size < head.size(); ++size)
        EXPECT_EQ(request_head_size(std::string_view{head}.substr(0, size)), 0U) << size;
    EXPECT_EQ(request_head_size(head), head.size());
    EXPECT_EQ(request_head_size(head + "GET /next HTTP/1.1\r\n\r\n"), head.size());
}

TEST(request_head, keeps_what_means_something_to_us)
{
    const auto head =
        read_request_head("GET /a?b=c HTTP/1.1\r\nHost: x\r\nACCEPT:  text/plain \r\n"
                          "Range: bytes=0-1\r\nAccept-Encoding: gzip\r\nauthorization:\tBearer t\r\n"
                          "connection:close\r\n\r\n");
    ASSERT_TRUE(head);
    EXPECT_EQ(head->text, "GET /a?b=c HTTP/1.1\r\naccept: text/plain\r\nconnection: close\r\n\r\n");
    EXPECT_EQ(head->authorization, "Bearer t");
    EXPECT_FALSE(head->has_body);
}

TEST(request_head, knows_when_a_body_follows)
{
    const struct {
        const char* header;
        bool then;
    } cases[] = {
        {"Content-Length: 0", false},        {"Content-Length: 1", true},
        {"CONTENT-LENGTH: nonsense", true},  {"Transfer-Encoding: chunked", true},
        {"Content-Type: text/plain", false},
    };
    for (const auto& c : cases) {
        const auto head = read_request_head("GET / HTTP/1.1\r\n" + std::string{c.header} + "\r\n\r\n");
        ASSERT_TRUE(head) << c.header;
        EXPECT_EQ(head->has_body, c.then) << c.header;
    }
}

TEST(request_head, takes_no_more_headers_than_the_limit)
{
    const auto with_headers = [](size_t number) {
        std::string head = "GET / HTTP/1.1\r\n";
        for (size_t i = 0; i < number; ++i)
            head += "A: b\r\n";
        return head + "\r\n";
    };
    EXPECT_TRUE(read_request_head(with_headers(request_headers_limit)));
    EXPECT_FALSE(read_request_head(with_headers(request_headers_limit + 1)));
}

TEST(request_head, takes_no_more_bytes_than_the_limit)
{
    const auto of_size = [](size_t size) {
        const std::string begin = "GET / HTTP/1.1\r\nA: ";
        return begin + std::string(size - begin.size() - 4, 'a') + "\r\n\r\n";
    };
    EXPECT_TRUE(read_request_head(of_size(request_head_limit)));
    EXPECT_FALSE(read_request_head(of_size(request_head_limit + 1)));
}

TEST(request_head, is_none_of_these)
{
    for (const char* given : {"", "GET / HTTP/1.1", "GET / HTTP/1.1\r\n", "\r\n\r\n", "GET\r\n\r\n",
                              "GET / HTTP/1.2\r\n\r\n", "GET / HTTP/1.10\r\n\r\n", " GET / HTTP/1.1\r\n\r\n",
                              "GET  HTTP/1.1\r\n\r\n", "GET a HTTP/1.1\r\n\r\n", "GET / / HTTP/1.1\r\n\r\n",
                              "GET /\t HTTP/1.1\r\n\r\n", "GET /\x7F HTTP/1.1\r\n\r\n",
                              "GET / HTTP/1.1\nA: b\r\n\r\n", "GET / HTTP/1.1\r\nA: b\nB: c\r\n\r\n",
                              "GET / HTTP/1.1\r\nA\r\n\r\n", "GET / HTTP/1.1\r\n A: b\r\n\r\n",
                              "GET / HTTP/1.1\r\n:\r\n\r\n", "GET / HTTP/1.1\r\nA: \x01\r\n\r\n"})
        EXPECT_FALSE(read_request_head(given)) << given;
}

} // namespace rtls
