#include "link/port_stay.h"

#include "net/stream_send.h"

#include <algorithm>

namespace rtls {

static bool has_news(zsock_t* sock) noexcept
{
    return sock && has_events(zsock_resolve(sock));
}

void port_stay::watch(int descriptor) noexcept
{
    m_sources[m_number++] = {descriptor, POLLIN, 0}; // one below 0 never has news
}

// A socket of the library, all of whose events have been asked for: its descriptor tells of the next.
void port_stay::watch(zsock_t* sock) noexcept
{
    watch(sock ? zsock_fd(sock) : -1);
}

// False when the loop knows already that another source has news: its descriptor would not tell again. Those that
// are not asked, the links' watches and the end of the actor, wait until the stay's end.
bool port_stay::begin() noexcept
{
    if (has_news(m_server.interthread_sever_sock) || has_news(m_server.proxy_sock))
        return false;
    watch(m_server.win_sock);
    watch(m_server.interthread_sever_sock);
    watch(m_server.proxy_sock);
    watch(m_server.discovery_sock_descriptor);
    watch(m_server.calls ? m_server.calls->descriptor() : -1);
    return true;
}

bool port_stay::goes_on(int64_t now) noexcept
{
    if (now >= m_until || m_server.intake_is_paused || !m_server.cuts.empty() || (m_number == 0 && !begin()))
        return false;
    const bool is_drained = m_server.undrained_since == 0;
    const int wait_ms = is_drained ? static_cast<int>((m_until - now + 999) / 1000) : 0;
    const int number = poll(m_sources.data(), m_number, wait_ms);
    if (number < 0 || std::any_of(m_sources.begin() + 1, m_sources.begin() + m_number,
                                  [](const pollfd& source) { return source.revents != 0; }))
        return false;
    return number > 0 || !is_drained;
}

} // namespace rtls
