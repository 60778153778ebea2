#include "doors/terminal_session.h"

#include "doors/failure.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

namespace ctl {

using steady = std::chrono::steady_clock;

// What fits into a packet on any way there. Longer ones may arrive in two pieces, which are two commands.
static constexpr size_t longest_command = 1'400;

// However long an answer may take.
static constexpr seconds longest_connecting{5};

static steady::time_point deadline_after(seconds timeout)
{
    return steady::now() + std::chrono::duration_cast<steady::duration>(timeout);
}

static int ms_until(steady::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 86'400'000));
}

// False when the time is over first.
static bool wait_for(int fd, short event, steady::time_point deadline)
{
    pollfd entry{fd, event, 0};
    int count = poll(&entry, 1, ms_until(deadline));
    while (count < 0 && errno == EINTR)
        count = poll(&entry, 1, ms_until(deadline));
    return count > 0;
}

// --- Connecting

namespace {

struct addresses_freed {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, addresses_freed>;

} // namespace

static address_list resolve(const endpoint& where)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(where.host.c_str(), std::to_string(where.port).c_str(), &hints, &found);
    if (error != 0)
        throw failure(exit_status::unreachable,
                      fmt::format("there is no host {}: {}", where.host, gai_strerror(error)));
    return address_list{found};
}

// The descriptor, or none with errno.
static rtls::unique_fd connect_to(const addrinfo& address, steady::time_point deadline)
{
    rtls::unique_fd fd{socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (!fd)
        return fd;
    int error = ::connect(fd.get(), address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        socklen_t size = sizeof error;
        error = ETIMEDOUT;
        if (wait_for(fd.get(), POLLOUT, deadline) &&
            getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            error = errno;
    }
    if (error == 0)
        return fd;
    fd = rtls::unique_fd{};
    errno = error;
    return fd;
}

terminal_session::terminal_session(const endpoint& where, seconds timeout)
    : m_where(to_text(where)), m_timeout(timeout)
{
    connect(where, std::min(timeout, longest_connecting));
    const int on = 1; // a command leaves at once, and alone
    setsockopt(m_fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void terminal_session::connect(const endpoint& where, seconds timeout)
{
    const auto deadline = deadline_after(timeout);
    const auto addresses = resolve(where);
    for (const addrinfo* it = addresses.get(); it != nullptr && !m_fd; it = it->ai_next)
        m_fd = connect_to(*it, deadline);
    if (!m_fd)
        throw failure(exit_status::unreachable,
                      fmt::format("no terminal answers at {}: {}", m_where, std::strerror(errno)));
}

// --- Asking

void terminal_session::send(std::string_view command)
{
    const std::string packet = std::string{command} + "\n";
    if (packet.size() > longest_command || command.find_first_of("\r\n") != std::string_view::npos ||
        command.find('\0') != std::string_view::npos)
        throw failure(exit_status::usage,
                      fmt::format("a command has one line of at most {} characters", longest_command - 1));
    if (::send(m_fd.get(), packet.data(), packet.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(packet.size()))
        throw failure(exit_status::unreachable,
                      fmt::format("the terminal at {} takes no command: {}", m_where, std::strerror(errno)));
}

// Appends what has come.
void terminal_session::receive()
{
    char buffer[65'536];
    const ssize_t size = recv(m_fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (size > 0) {
        m_received.append(buffer, static_cast<size_t>(size));
        return;
    }
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    throw failure(exit_status::unreachable,
                  fmt::format("the terminal at {} has closed the connection", m_where));
}

std::string terminal_session::ask(std::string_view command, ending_rule end_of_answer)
{
    send(command);
    const auto deadline = deadline_after(m_timeout);
    size_t end = end_of_answer(m_received);
    while (end == std::string::npos) {
        if (!wait_for(m_fd.get(), POLLIN, deadline))
            throw failure(exit_status::timed_out,
                          fmt::format("the terminal at {} has not answered \"{}\" within {} s", m_where,
                                      command.substr(0, command.find(' ')), m_timeout.count()));
        receive();
        end = end_of_answer(m_received);
    }
    std::string answer = m_received.substr(0, end);
    m_received.erase(0, end);
    return answer;
}

std::string terminal_session::read_more()
{
    receive();
    return std::exchange(m_received, {});
}

} // namespace ctl
