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

tcp_peer::tcp_peer(tcp_peer&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)), m_ended(other.m_ended) {}

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

bool tcp_peer::wait_readable(milliseconds time) const
{
    pollfd item{m_fd, POLLIN, 0};
    return poll(&item, 1, static_cast<int>(time.count())) > 0;
}

bool tcp_peer::receive_more(std::string& received, milliseconds time, size_t limit)
{
    if (m_ended || !wait_readable(time))
        return false;
    std::array<char, 65536> chunk;
    const ssize_t size = recv(m_fd, chunk.data(), std::min(limit, chunk.size()), 0);
    m_ended = size <= 0; // the end, or a reset
    if (size > 0)
        received.append(chunk.data(), static_cast<size_t>(size));
    return size > 0;
}

std::string tcp_peer::receive(size_t count, milliseconds time)
{
    const auto deadline = steady_clock::now() + time;
    std::string received;
    while (received.size() < count && receive_more(received, left_until(deadline), count - received.size())) {
    }
    return received;
}

std::string tcp_peer::receive_available()
{
    std::string received;
    while (receive_more(received, milliseconds(0))) {
    }
    return received;
}

bool tcp_peer::is_closed(milliseconds time)
{
    const auto deadline = steady_clock::now() + time;
    std::string rest;
    while (receive_more(rest, left_until(deadline)))
        rest.clear();
    return m_ended;
}

} // namespace rtls
