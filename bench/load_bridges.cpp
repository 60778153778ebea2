#include "load_bridges.h"

#include "wire/slip.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

namespace rtls::load {

static void give_up(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// -1 when nobody accepts.
static int connect_to(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets interface
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

bridges::~bridges()
{
    for (const connection& c : m_connections)
        close(c.descriptor);
    if (m_waiting >= 0)
        close(m_waiting);
}

void bridges::add(int descriptor)
{
    if (m_waiting < 0)
        m_waiting = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = m_connections.size();
    if (epoll_ctl(m_waiting, EPOLL_CTL_ADD, descriptor, &event) != 0)
        give_up("epoll_ctl");
    m_connections.push_back({.descriptor = descriptor, .message = {}});
}

void bridges::connect(uint16_t port, size_t number)
{
    while (m_connections.size() < number) {
        const int fd = connect_to(port);
        if (fd < 0)
            give_up("connect");
        add(fd);
    }
}

void bridges::connect_until_there(uint16_t port, size_t number)
{
    while (m_connections.size() < number) {
        const int fd = connect_to(port);
        if (fd < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds{1}); // nothing tells of a port that opens
        else
            add(fd);
    }
}

void bridges::write(size_t bridge, const std::vector<uint8_t>& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(m_connections[bridge].descriptor, bytes.data() + done, bytes.size() - done);
        if (n <= 0)
            give_up("write");
        done += static_cast<size_t>(n);
    }
}

void bridges::unstuff(connection& from, std::span<const uint8_t> bytes, const taker& with)
{
    for (const uint8_t byte : bytes) {
        const bool is_literal = std::exchange(from.is_escaped, false);
        if (!is_literal && byte == slip_start) {
            from.message.clear();
            from.is_inside = true;
        } else if (!is_literal && byte == slip_esc) {
            from.is_escaped = from.is_inside;
        } else if (!is_literal && byte == slip_end) {
            if (std::exchange(from.is_inside, false))
                with(from.message);
        } else if (from.is_inside) {
            from.message.push_back(byte);
        }
    }
}

void bridges::take(int timeout_ms, const taker& with)
{
    std::array<epoll_event, 64> events{};
    std::array<uint8_t, 65536> bytes{};
    const int ready = epoll_wait(m_waiting, events.data(), events.size(), timeout_ms);
    for (int i = 0; i < ready; ++i) {
        connection& from = m_connections[events[static_cast<size_t>(i)].data.u64];
        const ssize_t size = recv(from.descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN))
            give_up("recv");
        if (size > 0)
            unstuff(from, std::span{bytes}.first(static_cast<size_t>(size)), with);
    }
}

void bridges::overlook_answers(size_t bridge)
{
    std::array<uint8_t, 4096> bytes{};
    while (recv(m_connections[bridge].descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0)
        continue;
}

} // namespace rtls::load
