#include "rtls-replay/connections.h"

#include "tap/failure.h"

#include <fmt/format.h>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace replay {

using rtls::bytes_view;
using rtls::unique_fd;
using tap::exit_status;
using tap::failure;

connections::connections(const std::string& address, uint64_t seed)
    : m_address(address), m_seed(seed), m_random(seed), m_events(::epoll_create1(EPOLL_CLOEXEC))
{
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == address.size())
        throw failure(exit_status::usage, fmt::format("\"{}\" is no address, as 127.0.0.1:4001 is", address));
    m_host = address.substr(0, colon);
    m_port = address.substr(colon + 1);
    if (m_host.starts_with('[') && m_host.ends_with(']'))
        m_host = m_host.substr(1, m_host.size() - 2);
}

// --- Opening and closing

struct free_addresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

// None, with errno, when nobody answers there.
static unique_fd connect_to(const addrinfo& to)
{
    unique_fd socket{::socket(to.ai_family, to.ai_socktype | SOCK_CLOEXEC, to.ai_protocol)};
    if (!socket || ::connect(socket.get(), to.ai_addr, to.ai_addrlen) == 0)
        return socket;
    const int why = errno;
    socket = unique_fd{};
    errno = why;
    return socket;
}

unique_fd connections::connect() const
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = ::getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &found); error != 0)
        throw failure(exit_status::unreachable, fmt::format("{}: {}", m_address, ::gai_strerror(error)));
    const std::unique_ptr<addrinfo, free_addresses> list{found};
    unique_fd socket;
    for (const addrinfo* it = found; it && !socket; it = it->ai_next)
        socket = connect_to(*it);
    if (!socket && (errno == EMFILE || errno == ENFILE))
        throw failure(exit_status::failed,
                      fmt::format("no descriptor is left for a connection beside {} (ulimit -n): {}", open(),
                                  std::strerror(errno)));
    if (!socket)
        throw failure(exit_status::unreachable,
                      fmt::format("no gateway answers at {}: {}", m_address, std::strerror(errno)));
    return socket;
}

connections::connection& connections::opened(uint32_t number)
{
    const auto [found, is_new] = m_all.try_emplace(number);
    connection& it = found->second;
    if (!is_new)
        return it;
    it.socket = connect();
    const int at_once = 1; // each read that was recorded leaves alone
    ::setsockopt(it.socket.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &it; // which the table does not move
    ::epoll_ctl(m_events.get(), EPOLL_CTL_ADD, it.socket.get(), &event);
    ++m_opened;
    return it;
}

size_t connections::open() const
{
    return static_cast<size_t>(
        std::ranges::count_if(m_all, [](const auto& entry) { return bool{entry.second.socket}; }));
}

void connections::end(connection& it)
{
    it.socket = unique_fd{};
}

// Half of it: closed at once, with bytes of the gateway unread, it would be reset, and what the gateway has not read
// yet would be lost. wait() sees the gateway close the rest.
void connections::close(uint32_t number)
{
    const auto found = m_all.find(number);
    if (found == m_all.end())
        return;
    connection& it = found->second;
    put(it, it.kept);
    it.kept.clear();
    if (it.socket)
        ::shutdown(it.socket.get(), SHUT_WR);
}

void connections::finish()
{
    std::vector<uint32_t> numbers;
    for (const auto& [number, it] : m_all)
        numbers.push_back(number);
    for (const uint32_t number : numbers)
        close(number);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds{2};
    while (open() > 0 && std::chrono::steady_clock::now() < until)
        wait(std::chrono::milliseconds{20});
}

// --- Bytes

// What has come is dropped; a connection that has ended is closed.
void connections::wait(std::chrono::milliseconds time)
{
    static char dropped[65536];
    epoll_event events[64];
    const int ready = ::epoll_wait(m_events.get(), events, 64, static_cast<int>(time.count()));
    for (int i = 0; i < ready; ++i) {
        auto& it = *static_cast<connection*>(events[i].data.ptr);
        const ssize_t size = !it.socket ? 1 : ::recv(it.socket.get(), dropped, sizeof dropped, MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR))
            end(it);
    }
}

void connections::put(connection& to, bytes_view bytes)
{
    while (!bytes.empty() && to.socket) {
        const ssize_t sent = ::send(to.socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            bytes = bytes.subspan(static_cast<size_t>(sent));
            m_sent += static_cast<uint64_t>(sent);
            continue;
        }
        if (errno != EAGAIN && errno != EINTR)
            end(to);
        wait(std::chrono::milliseconds{0});
        pollfd room{to.socket.get(), POLLOUT, 0};
        ::poll(&room, 1, 20);
    }
    if (!bytes.empty() && !to.is_refused) {
        to.is_refused = true;
        ++m_refused;
    }
}

void connections::send(uint32_t number, bytes_view bytes)
{
    connection& to = opened(number);
    if (m_seed == 0) {
        put(to, bytes);
        return;
    }
    to.kept.insert(to.kept.end(), bytes.begin(), bytes.end());
    const size_t now = static_cast<size_t>(m_random() % (to.kept.size() + 1));
    const size_t first = now == 0 ? 0 : static_cast<size_t>(m_random() % now);
    put(to, bytes_view{to.kept}.first(first));
    put(to, bytes_view{to.kept}.subspan(first, now - first));
    to.kept.erase(to.kept.begin(), to.kept.begin() + static_cast<std::ptrdiff_t>(now));
}

void connections::send_rest()
{
    for (auto& [number, it] : m_all) {
        put(it, it.kept);
        it.kept.clear();
    }
}

} // namespace replay
