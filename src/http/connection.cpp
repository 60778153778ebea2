#include "http/connection.h"

#include "http/request_head.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

namespace rtls {

static constexpr size_t read_size = 4096;
static constexpr size_t drain_limit = size_t{256} * 1024;

static bool would_wait()
{
    return errno == EAGAIN || errno == EINTR;
}

short connection::events() const
{
    switch (m_phase) {
    case phase::writing:
        return POLLOUT;
    case phase::answering:
        return 0; // what he sends meanwhile waits in TCP
    default:
        return POLLIN;
    }
}

std::optional<std::string> connection::serve(int64_t now_ms)
{
    if (is_late(now_ms))
        end_late();
    switch (m_phase) {
    case phase::reading:
        read();
        return take_head(now_ms);
    case phase::writing:
        write(now_ms);
        return take_head(now_ms);
    case phase::farewell:
        drain();
        return std::nullopt;
    case phase::answering: // polled for nothing: the connection is broken
    case phase::ended:
        break;
    }
    m_phase = phase::ended;
    return std::nullopt;
}

// Silence between two requests is nobody's fault, and who is told goodbye has his answer.
void connection::end_late()
{
    if (m_phase == phase::writing || (m_phase == phase::reading && (!m_has_asked || !m_input.empty())))
        m_refused = http_refusal::timed_out;
    m_phase = phase::ended;
}

void connection::read()
{
    std::array<char, read_size> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t count = recv(fd(), bytes.data(), bytes.size(), 0);
    if (count > 0)
        m_input.append(bytes.data(), static_cast<size_t>(count));
    else if (count == 0 || !would_wait())
        m_phase = phase::ended;
}

// The next request, as soon as it is there whole.
std::optional<std::string> connection::take_head(int64_t now_ms)
{
    if (m_phase != phase::reading || m_input.empty())
        return std::nullopt;
    const size_t size = request_head_size(m_input);
    if (size > request_head_limit || (size == 0 && m_input.size() >= request_head_limit)) {
        m_refused = http_refusal::too_long;
        begin_to_write(refusal_bytes(431, "the head of the request is too long"), false, now_ms);
        return std::nullopt;
    }
    if (size == 0) {
        if (std::exchange(m_is_new, false)) // from its first byte on
            m_deadline = now_ms + m_times.head_ms;
        return std::nullopt;
    }
    std::string head = m_input.substr(0, size);
    m_input.erase(0, size);
    m_phase = phase::answering;
    m_deadline = no_deadline;
    m_has_asked = true;
    return head;
}

void connection::answer(http_answer answer, int64_t now_ms)
{
    begin_to_write(std::move(answer.bytes), answer.keeps_open, now_ms);
}

void connection::begin_to_write(std::string bytes, bool keeps_open, int64_t now_ms)
{
    m_output = std::move(bytes);
    m_sent = 0;
    m_keeps_open = keeps_open;
    m_phase = phase::writing;
    m_deadline = now_ms + m_times.answer_ms;
}

void connection::write(int64_t now_ms)
{
    while (m_sent < m_output.size()) {
        const ssize_t count = send(fd(), m_output.data() + m_sent, m_output.size() - m_sent, MSG_NOSIGNAL);
        if (count < 0) {
            if (!would_wait())
                m_phase = phase::ended;
            return;
        }
        m_sent += static_cast<size_t>(count);
    }
    go_on(now_ms);
}

// The answer is out: the next request, or the end. What a client still sends must be taken from him, or his
// system throws the answer away.
void connection::go_on(int64_t now_ms)
{
    m_output = {};
    m_is_new = true;
    if (m_keeps_open) {
        m_phase = phase::reading;
        m_deadline = now_ms + m_times.silence_ms;
        return;
    }
    m_phase = shutdown(fd(), SHUT_WR) == 0 ? phase::farewell : phase::ended;
    m_deadline = now_ms + m_times.farewell_ms;
}

void connection::drain()
{
    std::array<char, read_size> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t count = recv(fd(), bytes.data(), bytes.size(), 0);
    if (count > 0)
        m_drained += static_cast<size_t>(count);
    if (count == 0 || (count < 0 && !would_wait()) || m_drained > drain_limit)
        m_phase = phase::ended;
}

} // namespace rtls
