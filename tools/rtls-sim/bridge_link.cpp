#include "rtls-sim/bridge_link.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace sim {

// What the gateway says first, raw.
static constexpr std::string_view greeting = "sync\n";

bool bridge_link::connect(const sockaddr_in& gateway)
{
    close();
    m_fd = rtls::unique_fd{::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (!m_fd)
        return false;
    const int on = 1;
    setsockopt(m_fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_state = state::connecting;
    if (::connect(m_fd.get(), reinterpret_cast<const sockaddr*>(&gateway), sizeof gateway) == 0 ||
        errno == EINPROGRESS)
        return true;
    close();
    return false;
}

void bridge_link::close()
{
    m_fd = rtls::unique_fd{};
    m_state = state::down;
    m_greeted = 0;
    m_out.clear();
    m_sent = 0;
    m_in = {};
}

void bridge_link::queue(view message)
{
    // What has gone makes room, without moving the rest at every message.
    if (m_sent > 65'536 && m_sent > m_out.size() / 2) {
        m_out.erase(m_out.begin(), m_out.begin() + static_cast<ptrdiff_t>(m_sent));
        m_sent = 0;
    }
    append_frame(m_out, message);
}

bool bridge_link::flush()
{
    while (m_sent < m_out.size()) {
        const ssize_t written =
            ::send(m_fd.get(), m_out.data() + m_sent, m_out.size() - m_sent, MSG_NOSIGNAL);
        if (written < 0)
            return errno == EAGAIN || errno == EINTR;
        m_sent += static_cast<size_t>(written);
        m_bytes_sent += static_cast<uint64_t>(written);
    }
    m_out.clear();
    m_sent = 0;
    return true;
}

bool bridge_link::finish_connecting()
{
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(m_fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
        return false;
    m_state = state::waiting;
    return true;
}

// The greeting may come in pieces; what follows it is framed.
view bridge_link::strip_greeting(view data)
{
    while (m_state == state::waiting && !data.empty()) {
        m_greeted = data[0] == static_cast<uint8_t>(greeting[m_greeted]) ? m_greeted + 1 : 0;
        data = data.subspan(1);
        if (m_greeted == greeting.size())
            m_state = state::up;
    }
    return data;
}

bool bridge_link::read(const std::function<void(view)>& received)
{
    std::array<uint8_t, 65'536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (;;) {
        const ssize_t got = ::recv(m_fd.get(), buffer.data(), buffer.size(), 0);
        if (got == 0)
            return false;
        if (got < 0)
            return errno == EAGAIN || errno == EINTR;
        m_in.feed(strip_greeting(view{buffer}.first(static_cast<size_t>(got))), received);
        if (static_cast<size_t>(got) < buffer.size())
            return true;
    }
}

bool bridge_link::on_ready(bool readable, bool writable, const std::function<void(view)>& received)
{
    if (m_state == state::connecting && writable && !finish_connecting())
        return false;
    if (writable && !flush())
        return false;
    return !readable || read(received);
}

} // namespace sim
