#include "server/discovery.h"

#include "base/hex.h"
#include "link/win_server_private.h"
#include "net/udplib.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace rtls {

// Whether the test's own thread is told that nothing can be sent.
static thread_local bool network_is_down = false;

// Takes the place of the library's.
extern "C" ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to,
                          socklen_t to_size)
{
    if (network_is_down) {
        errno = ENETUNREACH;
        return -1;
    }
    static const auto next = reinterpret_cast<decltype(&sendto)>(dlsym(RTLD_NEXT, "sendto"));
    return next(fd, data, size, flags, to, to_size);
}

namespace {

constexpr int patience_ms = 5000;
constexpr in_port_t win_port = 0x0FA1;
constexpr char bridge_address[] = "127.0.0.3";
constexpr char gateway_address[] = "127.0.0.2";

in_addr address_of(const char* text)
{
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return address;
}

sockaddr_in endpoint(const char* text, in_port_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = address_of(text);
    return address;
}

const sockaddr* generic(const sockaddr_in& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

in_port_t port_of(int socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

bool is_readable(int socket)
{
    pollfd item{socket, POLLIN, 0};
    return poll(&item, 1, patience_ms) == 1;
}

class discovery_test : public testing::Test {
protected:
    discovery_test()
    {
        server->win_port = win_port;
        EXPECT_TRUE(udp_new_connection(0, &server->discovery_sock_descriptor));
        const sockaddr_in own = endpoint(bridge_address, 0);
        EXPECT_EQ(bind(bridge, generic(own), sizeof own), 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(bridge, SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
    }
    ~discovery_test() override
    {
        close(bridge);
        udp_destroy(server->discovery_sock_descriptor);
    }

    // Sends one datagram and lets the gateway handle it.
    void send(const std::vector<uint8_t>& datagram, const char* to = gateway_address)
    {
        const sockaddr_in gateway = endpoint(to, port_of(server->discovery_sock_descriptor));
        ASSERT_EQ(sendto(bridge, datagram.data(), datagram.size(), 0, generic(gateway), sizeof gateway),
                  static_cast<ssize_t>(datagram.size()));
        ASSERT_TRUE(is_readable(server->discovery_sock_descriptor));
        const uint64_t before = server->counts.discovery.sum();
        EXPECT_EQ(handle_udp_in(nullptr, nullptr, server.get()), 0);
        EXPECT_EQ(server->counts.discovery.sum(), before + 1); // each datagram in one outcome
    }

    // The next answer as hex.
    std::string answer()
    {
        if (!is_readable(bridge))
            return "none";
        std::vector<uint8_t> bytes(64);
        sockaddr_in from{};
        socklen_t from_size = sizeof from;
        const ssize_t size =
            recvfrom(bridge, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &from_size);
        bytes.resize(static_cast<size_t>(size));
        // Firewalls on a bridge's side let in what comes from where it has asked, and nothing else.
        EXPECT_EQ(ntohs(from.sin_port), port_of(server->discovery_sock_descriptor));
        return to_hex(bytes);
    }

    // Whether nothing was answered until now: the answer to a further request is the first one to come.
    bool is_unanswered()
    {
        send({1, 0xDE, 0xAD, 0xBE, 0xEF, 0xDE, 0xAD, 0xBE, 0xEF});
        return answer().starts_with("01DEADBEEFDEADBEEF");
    }

    uint64_t counted(discovery_outcome what) const { return server->counts.discovery[what].value(); }

    std::string rcvd_line() const
    {
        return std::string("DISC: rcvd discovery: ") + bridge_address + ":" + std::to_string(port_of(bridge));
    }

    log_capture log;
    std::unique_ptr<WIN_SERVER_t> server = std::make_unique<WIN_SERVER_t>();
    int bridge = socket(AF_INET, SOCK_DGRAM, 0);
};

} // namespace

TEST_F(discovery_test, six_bytes_of_any_content_are_answered_with_the_requesters_address)
{
    const std::vector<std::vector<uint8_t>> requests = {
        {0, 0, 0, 0, 0, 0}, {1, 2, 3, 4, 5, 6}, {2, 0, 0, 0, 0, 0}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    for (const auto& request : requests) {
        send(request);
        EXPECT_EQ(answer(), digits("7F000003 0FA1"));
    }
    EXPECT_EQ(log.messages("discovery"), std::vector<std::string>(requests.size(), rcvd_line()));
}

TEST_F(discovery_test, a_request_for_the_address_is_answered_with_the_one_it_was_sent_to)
{
    for (const char* to : {"127.0.0.2", "127.0.0.1", "127.1.2.3"}) {
        send({1, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}, to);
        const uint32_t address = address_of(to).s_addr;
        EXPECT_EQ(answer(), "011122334455667788" +
                                to_hex({reinterpret_cast<const uint8_t*>(&address), sizeof address}) +
                                "0FA1");
    }
}

TEST_F(discovery_test, a_broadcast_is_answered_with_an_address_of_the_receiving_interface)
{
    send({1, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}, "127.255.255.255");
    EXPECT_EQ(answer(), digits("011122334455667788 7F000001 0FA1"));
}

TEST_F(discovery_test, every_other_size_and_command_is_refused)
{
    const std::string invalid = "DISC: Invalid size of DSC_CMD_REQUEST_ADDRESS";
    for (size_t size = 1; size <= 40; ++size)
        for (const uint8_t command : {uint8_t{0}, uint8_t{1}, uint8_t{2}, uint8_t{255}}) {
            const bool answered = size == 6 || (size == 9 && command == 1);
            if (answered)
                continue;
            SCOPED_TRACE(testing::Message() << size << " bytes, command " << int{command});
            std::vector<uint8_t> datagram(size, 0x55);
            datagram[0] = command;
            send(datagram);
            const std::string refusal =
                command == 1 ? invalid : "DISC: unknown discovery command: " + std::to_string(command);
            EXPECT_EQ(log.messages("discovery"), (std::vector<std::string>{rcvd_line(), refusal}));
        }
    EXPECT_EQ(counted(discovery_outcome::malformed), server->counts.discovery.sum());
    EXPECT_TRUE(is_unanswered());
    EXPECT_EQ(counted(discovery_outcome::answered), 1U);
}

TEST_F(discovery_test, an_empty_datagram_is_ignored)
{
    send({});
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(counted(discovery_outcome::malformed), 1U);
    EXPECT_TRUE(is_unanswered());
}

TEST_F(discovery_test, a_datagram_that_does_not_say_where_it_was_sent_to_is_ignored)
{
    const int off = 0;
    ASSERT_EQ(setsockopt(server->discovery_sock_descriptor, IPPROTO_IP, IP_PKTINFO, &off, sizeof off), 0);
    send({1, 2, 3, 4, 5, 6});
    send({1, 2, 3, 4, 5, 6, 7, 8, 9});
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(counted(discovery_outcome::malformed), 2U);
    const int on = 1;
    ASSERT_EQ(setsockopt(server->discovery_sock_descriptor, IPPROTO_IP, IP_PKTINFO, &on, sizeof on), 0);
    EXPECT_TRUE(is_unanswered());
}

TEST_F(discovery_test, other_packet_information_in_front_does_no_harm)
{
    const int on = 1;
    ASSERT_EQ(setsockopt(server->discovery_sock_descriptor, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on), 0);
    ASSERT_EQ(setsockopt(server->discovery_sock_descriptor, IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
    send({1, 2, 3, 4, 5, 6, 7, 8, 9});
    EXPECT_EQ(answer(), digits("010203040506070809 7F000002 0FA1"));
}

TEST_F(discovery_test, what_comes_from_our_own_port_is_not_answered)
{
    server->discovery_port = port_of(bridge);
    for (int i = 0; i < 3; i++) {
        send({1, 2, 3, 4, 5, 6});
        send({1, 2, 3, 4, 5, 6, 7, 8, 9});
    }
    EXPECT_EQ(
        log.messages("main"),
        std::vector<std::string>{"discovery: requests from our own port at 127.0.0.3 are not answered!"});
    EXPECT_EQ(counted(discovery_outcome::own), 6U);
    server->discovery_port = static_cast<in_port_t>(port_of(bridge) + 1);
    EXPECT_TRUE(is_unanswered());
}

TEST_F(discovery_test, one_address_has_a_hundred_answers_a_second)
{
    const rate_bound seeded{7};
    server->discovery_answers = seeded;
    int sent = 0;
    int answered = 0;
    const auto begin = std::chrono::steady_clock::now();
    const auto flood = [&](const std::vector<uint8_t>& request) {
        send(request);
        ++sent;
        std::array<uint8_t, 64> bytes{};
        while (recv(bridge, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) // the loopback delivers at once
            ++answered;
    };
    for (int i = 0; i < 500; i++) {
        flood({1, 2, 3, 4, 5, 6});
        flood({1, 2, 3, 4, 5, 6, 7, 8, 9});
    }
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    EXPECT_GE(answered, 100);
    EXPECT_LE(answered, 100 * seconds.count());
    EXPECT_EQ(counted(discovery_outcome::answered), static_cast<uint64_t>(answered));
    EXPECT_EQ(counted(discovery_outcome::flood), static_cast<uint64_t>(sent - answered));
    if (answered < sent) {
        EXPECT_EQ(log.messages("main"),
                  std::vector<std::string>{
                      "discovery: more than 100 requests a second from 127.0.0.3 are not answered!"});
    }
}

TEST_F(discovery_test, an_answer_that_the_system_does_not_take_is_none)
{
    const sockaddr_in gateway = endpoint(gateway_address, port_of(server->discovery_sock_descriptor));
    const std::array<uint8_t, 6> request{1, 2, 3, 4, 5, 6};
    ASSERT_EQ(sendto(bridge, request.data(), request.size(), 0, generic(gateway), sizeof gateway), 6);
    ASSERT_TRUE(is_readable(server->discovery_sock_descriptor));
    network_is_down = true;
    EXPECT_EQ(handle_udp_in(nullptr, nullptr, server.get()), 0);
    network_is_down = false;
    EXPECT_EQ(counted(discovery_outcome::not_sent), 1U);
    EXPECT_EQ(server->counts.discovery.sum(), 1U);
    log.take();
}

TEST_F(discovery_test, without_a_socket_there_is_nothing_to_do)
{
    const auto unopened = std::make_unique<WIN_SERVER_t>();
    EXPECT_EQ(handle_udp_in(nullptr, nullptr, unopened.get()), 0);
    EXPECT_TRUE(log.take().empty());
}

} // namespace rtls
