#include "support/http_responder.h"

#include "support/wait.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace rtls {

static constexpr int trickle_interval_ms = 5;

std::string http_ok(std::string_view header_lines, std::string_view body)
{
    return "HTTP/1.1 200 OK\r\nConnection: close\r\n" + std::string{header_lines} + "\r\n" +
           std::string{body};
}

std::string http_image(std::string_view body)
{
    return http_ok("Content-Length: " + std::to_string(body.size()) + "\r\n", body);
}

static int checked(int result, const char* call)
{
    if (result < 0)
        throw std::system_error{errno, std::generic_category(), call};
    return result;
}

// A proxy of the environment must not come between the test and its server.
static void forget_proxies()
{
    for (const char* name :
         {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
        unsetenv(name);
}

http_responder::http_responder(std::map<std::string, http_answer> answers) : m_answers{std::move(answers)}
{
    forget_proxies();
    m_released = checked(eventfd(0, EFD_CLOEXEC), "eventfd");
    m_stopped = checked(eventfd(0, EFD_CLOEXEC), "eventfd");
    m_acceptor = std::thread{[this] { accept_all(); }};
}

http_responder::~http_responder()
{
    eventfd_write(m_stopped, 1);
    m_acceptor.join();
    for (auto& connection : m_connections)
        connection.join();
    for (const int fd : {m_released, m_stopped})
        close(fd);
}

std::string http_responder::url(std::string_view path) const
{
    return "http://127.0.0.1:" + std::to_string(m_listener.port()) + std::string{path};
}

void http_responder::release()
{
    eventfd_write(m_released, 1);
}

bool http_responder::wait_for_requests(size_t number)
{
    std::unique_lock lock{m_mutex};
    return m_changed.wait_for(lock, patience, [&] { return m_requests.size() >= number; });
}

std::vector<std::string> http_responder::requests()
{
    const std::lock_guard lock{m_mutex};
    return m_requests;
}

size_t http_responder::most_at_once()
{
    const std::lock_guard lock{m_mutex};
    return m_most_unanswered;
}

void http_responder::accept_all()
{
    while (true) {
        std::array<pollfd, 2> events{{{m_listener.fd(), POLLIN, 0}, {m_stopped, POLLIN, 0}}};
        if (poll(events.data(), events.size(), -1) < 0 || events[1].revents != 0)
            return;
        const int client = m_listener.accept();
        const std::lock_guard lock{m_mutex};
        m_connections.emplace_back([this, client] { serve(client); });
    }
}

void http_responder::serve(int client)
{
    std::string request;
    std::array<char, 4096> chunk{};
    while (request.find("\r\n\r\n") == std::string::npos) {
        std::array<pollfd, 2> events{{{client, POLLIN, 0}, {m_stopped, POLLIN, 0}}};
        if (poll(events.data(), events.size(), -1) < 0 || events[1].revents != 0)
            break;
        const ssize_t n = recv(client, chunk.data(), chunk.size(), 0);
        if (n <= 0)
            break;
        request.append(chunk.data(), static_cast<size_t>(n));
    }
    const size_t from = request.find(' ');
    const size_t to = from == std::string::npos ? from : request.find(' ', from + 1);
    if (to != std::string::npos) {
        const auto found = m_answers.find(request.substr(from + 1, to - from - 1));
        {
            const std::lock_guard lock{m_mutex};
            m_requests.push_back(request);
            m_most_unanswered = std::max(m_most_unanswered, ++m_unanswered);
            m_changed.notify_all();
        }
        if (found != m_answers.end())
            answer(client, found->second);
    }
    shutdown(client, SHUT_WR);
    close(client);
}

static bool send_all(int client, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

bool http_responder::held_until_release(int client)
{
    std::array<pollfd, 3> events{{{client, POLLRDHUP, 0}, {m_released, POLLIN, 0}, {m_stopped, POLLIN, 0}}};
    return poll(events.data(), events.size(), -1) > 0 && events[0].revents == 0 && events[2].revents == 0;
}

void http_responder::send_answer(int client, std::string_view bytes)
{
    const size_t last = bytes.empty() ? 0 : bytes.size() - 1;
    send_all(client, bytes.substr(0, last));
    {
        const std::lock_guard lock{m_mutex};
        --m_unanswered;
    }
    send_all(client, bytes.substr(last));
}

void http_responder::answer(int client, const http_answer& given)
{
    switch (given.how) {
    case http_answer::pace::at_once:
        send_answer(client, given.bytes);
        return;
    case http_answer::pace::after_release:
        if (held_until_release(client))
            send_answer(client, given.bytes);
        return;
    case http_answer::pace::then_stall:
        if (send_all(client, given.bytes))
            held_until_release(client);
        return;
    case http_answer::pace::trickled:
        for (size_t i = 0; send_all(client, given.bytes.substr(i, 1)); i = (i + 1) % given.bytes.size()) {
            std::array<pollfd, 2> events{{{client, POLLRDHUP, 0}, {m_stopped, POLLIN, 0}}};
            if (poll(events.data(), events.size(), trickle_interval_ms) != 0)
                return; // gone, or stopped
        }
        return;
    }
}

} // namespace rtls
