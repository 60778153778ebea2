#include "rtls-gateway-check/endpoint.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <string>

namespace rtls::check {

// Asks the library itself. Nothing is reached: the socket is closed before its thread has resolved the name.
static bool does_connect(const std::string& host)
{
    void* context = zmq_ctx_new();
    void* socket = zmq_socket(context, ZMQ_PUSH);
    const int linger = 0;
    zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
    const bool is_connected = zmq_connect(socket, ("tcp://" + host + ":1").c_str()) == 0;
    zmq_close(socket);
    zmq_ctx_term(context);
    return is_connected;
}

TEST(endpoint, hosts_are_taken_as_the_library_takes_them)
{
    for (const char* host : {"127.0.0.1",
                             "",
                             "[::1]",
                             "::1",
                             "*",
                             "a b",
                             "-a",
                             "1",
                             "127.0.0.1;127.0.0.1",
                             ".a",
                             "_a",
                             " ",
                             "127.0.0.1 ",
                             "tcp://127.0.0.1",
                             "127.0.0.1/",
                             "127.0.0.1,127.0.0.1",
                             "@127.0.0.1",
                             "%",
                             "[",
                             ":"})
        EXPECT_EQ(is_connectable(host), does_connect(host)) << host;
}

TEST(endpoint, every_character_within_a_host)
{
    for (int c = 1; c < 256; ++c) {
        const std::string host = std::string{"127.0.0.1"} + static_cast<char>(c);
        EXPECT_EQ(is_connectable(host), does_connect(host)) << c;
    }
}

TEST(endpoint, parts)
{
    const auto parts = parse_endpoint("tcp://[::1]:5558");
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->transport, "tcp");
    EXPECT_EQ(parts->host, "[::1]");
    EXPECT_EQ(parts->port, 5558);
    EXPECT_EQ(parse_endpoint("ipc:///run/a")->host, "/run/a");
    EXPECT_FALSE(parse_endpoint("tcp://a:0")->port);
    EXPECT_FALSE(parse_endpoint("tcp://a:5558x")->port);
    for (const char* text : {"", "a:5558", "://a:1", "tcp://", "tcp://a"})
        EXPECT_FALSE(parse_endpoint(text)) << text;
}

} // namespace rtls::check
