#include "support/tcp_peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static int checked(int result, const char* call)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), call);
    return result;
}

static milliseconds left_until(steady_clock::time_point deadline)
{
    return std::max(std::chrono::ceil<milliseconds>(deadline - steady_clock::now()), milliseconds(0));
}

tcp_peer::tcp_peer(uint16_t port, int receive_buffer)
    : m_fd(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"))
{
    if (receive_buffer > 0)
        checked(setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer), "SO_RCVBUF");
    const int on = 1;
    checked(setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), "TCP_NODELAY");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(connect(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), "connect");
}

tcp_peer::~tcp_peer()
{
    close();
}

tcp_peer::tcp_peer(tcp_peer&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

void tcp_peer::close()
{
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

uint16_t tcp_peer::port() const
{
    sockaddr_in addr{};
    socklen_t length = sizeof addr;
    checked(getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &length), "getsockname");
    return ntohs(addr.sin_port);
}

void tcp_peer::send(std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0)
            throw std::system_error(errno, std::generic_category(), "send");
        bytes = bytes.subspan(static_cast<size_t>(sent));
    }
}

bool tcp_peer::wait_readable(milliseconds patience) const
{
    pollfd item{m_fd, POLLIN, 0};
    return poll(&item, 1, static_cast<int>(patience.count())) > 0;
}

std::string tcp_peer::receive(size_t count, milliseconds patience)
{
    const auto deadline = steady_clock::now() + patience;
    std::string received(count, '\0');
    size_t size = 0;
    while (size < count && wait_readable(left_until(deadline))) {
        const ssize_t more = recv(m_fd, received.data() + size, count - size, 0);
        if (more <= 0)
            break;
        size += static_cast<size_t>(more);
    }
    received.resize(size);
    return received;
}

std::string tcp_peer::receive_available()
{
    std::string received;
    std::array<char, 65536> chunk;
    for (;;) {
        const ssize_t size = recv(m_fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (size <= 0)
            return received;
        received.append(chunk.data(), static_cast<size_t>(size));
    }
}

bool tcp_peer::is_closed(milliseconds patience)
{
    const auto deadline = steady_clock::now() + patience;
    std::array<char, 65536> rest;
    while (wait_readable(left_until(deadline)))
        if (recv(m_fd, rest.data(), rest.size(), 0) <= 0) // the end, or a reset
            return true;
    return false;
}

} // namespace rtls
