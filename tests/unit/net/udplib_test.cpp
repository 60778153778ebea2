#include "net/udplib.h"

#include "support/log_capture.h"
#include "support/wait.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

// Stands in for the C library's, to watch the options and to let one of them fail. The library behind the
// logger sets options on threads of its own.
static thread_local std::vector<std::pair<int, int>> options_set;
static thread_local std::optional<int> failing_option;

extern "C" int setsockopt(int handle, int level, int option, const void* value, socklen_t length)
{
    options_set.emplace_back(level, option);
    if (failing_option == option) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return static_cast<int>(syscall(SYS_setsockopt, handle, level, option, value, length));
}

namespace {

class udp_socket {
public:
    udp_socket() { EXPECT_TRUE(udp_new_connection(0, &handle)); }
    ~udp_socket() { udp_destroy(handle); }
    udp_socket(const udp_socket&) = delete;
    udp_socket& operator=(const udp_socket&) = delete;

    in_port_t port() const
    {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    bool is_readable() const
    {
        pollfd poller{handle, POLLIN, 0};
        return poll(&poller, 1, static_cast<int>(patience.count())) == 1;
    }

    int handle = -1;
};

sockaddr_in address_of(const char* ip, in_port_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, ip, &address.sin_addr);
    return address;
}

int option_of(int handle, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(handle, level, option, &value, &length);
    return value;
}

// By its kind, too: other threads, such as that of the system log, may have taken the number meanwhile.
bool is_open(int handle)
{
    int domain = 0;
    socklen_t length = sizeof domain;
    return getsockopt(handle, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_INET;
}

// A descriptor that is open and no socket.
class no_socket {
public:
    ~no_socket() { close(handle); }
    int handle = open("/dev/null", O_RDWR | O_CLOEXEC);
};

} // namespace

TEST(udp_new_connection, binds_a_blocking_socket_with_its_options)
{
    options_set.clear();
    const udp_socket socket;
    EXPECT_THAT(options_set,
                ElementsAre(std::pair(SOL_SOCKET, SO_BROADCAST), std::pair(SOL_SOCKET, SO_REUSEADDR),
                            std::pair<int, int>(IPPROTO_IP, IP_PKTINFO)));
    EXPECT_EQ(option_of(socket.handle, SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(option_of(socket.handle, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(option_of(socket.handle, IPPROTO_IP, IP_PKTINFO), 1);
    EXPECT_EQ(option_of(socket.handle, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(fcntl(socket.handle, F_GETFL) & O_NONBLOCK, 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket.handle, reinterpret_cast<sockaddr*>(&address), &length);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(udp_new_connection, takes_the_port_in_host_order)
{
    in_port_t port = 0;
    {
        const udp_socket socket;
        port = socket.port();
    }
    int handle = -1;
    ASSERT_TRUE(udp_new_connection(port, &handle));
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length);
    EXPECT_EQ(ntohs(address.sin_port), port);
    udp_destroy(handle);
}

TEST(udp_new_connection_at, binds_one_address_alone)
{
    int handle = -1;
    ASSERT_TRUE(udp_new_connection_at(address_of("127.0.0.1", 0).sin_addr, 0, &handle));
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(address.sin_port, 0);
    udp_destroy(handle);
}

TEST(udp_new_connection, reports_that_no_socket_can_be_had)
{
    log_capture log;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int lowest_free = dup(STDERR_FILENO);
    close(lowest_free);
    const rlimit no_more{static_cast<rlim_t>(lowest_free), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &no_more);
    int handle = 77;
    const bool done = udp_new_connection(0, &handle);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_FALSE(done);
    EXPECT_EQ(handle, -1);
    EXPECT_THAT(log.messages("main"), ElementsAre("udp_new_connection: socket: 24, Too many open files"));
}

TEST(udp_new_connection, closes_the_socket_when_an_option_fails)
{
    log_capture log;
    for (const int option : {SO_BROADCAST, SO_REUSEADDR, int{IP_PKTINFO}}) {
        SCOPED_TRACE(option);
        int handle = -1;
        failing_option = option;
        EXPECT_FALSE(udp_new_connection(0, &handle));
        failing_option.reset();
        EXPECT_NE(handle, -1);
        EXPECT_FALSE(is_open(handle));
        EXPECT_THAT(log.messages("main"),
                    ElementsAre("udp_new_connection: setsockopt: 92, Protocol not available"));
    }
}

TEST(udp_new_connection, closes_the_socket_when_the_port_is_taken)
{
    log_capture log;
    const int taken = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = address_of("0.0.0.0", 0);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length);
    int handle = -1;
    EXPECT_FALSE(udp_new_connection(ntohs(address.sin_port), &handle));
    EXPECT_NE(handle, -1);
    EXPECT_FALSE(is_open(handle));
    EXPECT_THAT(log.messages("main"), ElementsAre("udp_new_connection: bind: 98, Address already in use"));
    close(taken);
}

TEST(udp, datagrams_travel_both_ways)
{
    const udp_socket here;
    const udp_socket there;
    const sockaddr_in to = address_of("127.0.0.1", there.port());
    ASSERT_TRUE(udp_sendto(here.handle, "request", 7, &to, sizeof to));
    ASSERT_TRUE(there.is_readable());
    char buffer[16] = {};
    sockaddr_in peer{};
    EXPECT_EQ(udp_recv(there.handle, buffer, sizeof buffer, &peer, sizeof peer), 7);
    EXPECT_STREQ(buffer, "request");
    EXPECT_EQ(ntohs(peer.sin_port), here.port());
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(udp_sendto(there.handle, "answer", 6, &peer, sizeof peer));
    ASSERT_TRUE(here.is_readable());
    EXPECT_EQ(udp_recv(here.handle, buffer, 3, &peer, sizeof peer), 3); // cut to the buffer
    EXPECT_STREQ(buffer, "ansuest");
}

TEST(udp, an_empty_datagram_is_no_failure)
{
    log_capture log;
    const udp_socket here;
    const sockaddr_in to = address_of("127.0.0.1", here.port());
    ASSERT_TRUE(udp_sendto(here.handle, "", 0, &to, sizeof to));
    ASSERT_TRUE(here.is_readable());
    char buffer[4];
    sockaddr_in peer{};
    EXPECT_EQ(udp_recv(here.handle, buffer, sizeof buffer, &peer, sizeof peer), 0);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST(udp_recvmsg, tells_the_local_address_a_datagram_was_sent_to)
{
    const udp_socket here;
    const sockaddr_in to = address_of("127.0.0.2", here.port());
    ASSERT_TRUE(udp_sendto(here.handle, "abc", 3, &to, sizeof to));
    ASSERT_TRUE(here.is_readable());
    char data[16];
    alignas(cmsghdr) char control[256];
    iovec part{data, sizeof data};
    msghdr msg{};
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ASSERT_EQ(udp_recvmsg(here.handle, &msg), 3);
    const cmsghdr* header = CMSG_FIRSTHDR(&msg);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(header->cmsg_level, IPPROTO_IP);
    EXPECT_EQ(header->cmsg_type, IP_PKTINFO);
    in_pktinfo info{};
    std::memcpy(&info, CMSG_DATA(header), sizeof info);
    EXPECT_EQ(info.ipi_spec_dst.s_addr, to.sin_addr.s_addr);
}

TEST(udp, failures_are_logged_with_the_call)
{
    log_capture log;
    const no_socket wrong;
    const sockaddr_in to = address_of("127.0.0.1", 9);
    char buffer[4];
    sockaddr_in peer{};
    msghdr msg{};
    EXPECT_FALSE(udp_sendto(wrong.handle, "a", 1, &to, sizeof to));
    EXPECT_EQ(udp_recv(wrong.handle, buffer, sizeof buffer, &peer, sizeof peer), 0);
    EXPECT_EQ(udp_recvmsg(wrong.handle, &msg), 0);
    EXPECT_THAT(log.messages("main"),
                ElementsAre("udp_sendto: sendto: 88, Socket operation on non-socket",
                            "udp_recv: recvfrom: 88, Socket operation on non-socket",
                            "udp_recvmsg: recvmsg: 88, Socket operation on non-socket"));
}

TEST(udp_never_wait, has_calls_fail_that_would_wait)
{
    log_capture log;
    const udp_socket here;
    ASSERT_TRUE(udp_never_wait(here.handle));
    char buffer[4];
    sockaddr_in peer{};
    msghdr msg{};
    EXPECT_EQ(udp_recv(here.handle, buffer, sizeof buffer, &peer, sizeof peer), 0);
    EXPECT_EQ(errno, EAGAIN);
    errno = 0;
    EXPECT_EQ(udp_recvmsg(here.handle, &msg), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_FALSE(udp_never_wait(-1));
    EXPECT_THAT(log.messages("main"), ElementsAre("udp_never_wait: fcntl: 9, Bad file descriptor"));
}

TEST(udp_sendto, refuses_what_no_datagram_holds)
{
    log_capture log;
    const udp_socket here;
    const sockaddr_in to = address_of("127.0.0.1", here.port());
    const std::string too_long(65508, 'x'); // 65535 less the headers of IP and UDP holds one byte fewer
    EXPECT_FALSE(udp_sendto(here.handle, too_long.data(), too_long.size(), &to, sizeof to));
    EXPECT_THAT(log.messages("main"), ElementsAre("udp_sendto: sendto: 90, Message too long"));
}

TEST(udp, a_missing_descriptor_is_refused_silently)
{
    log_capture log;
    const sockaddr_in to = address_of("127.0.0.1", 9);
    char buffer[4];
    sockaddr_in peer{};
    msghdr msg{};
    EXPECT_FALSE(udp_sendto(-1, "a", 1, &to, sizeof to));
    EXPECT_EQ(udp_recv(-1, buffer, sizeof buffer, &peer, sizeof peer), 0);
    EXPECT_EQ(udp_recvmsg(-1, &msg), 0);
    udp_destroy(-1);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST(udp_destroy, closes_the_descriptor)
{
    int handle = -1;
    ASSERT_TRUE(udp_new_connection(0, &handle));
    ASSERT_TRUE(is_open(handle));
    udp_destroy(handle);
    EXPECT_FALSE(is_open(handle));
}

} // namespace rtls
