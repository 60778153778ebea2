#include "link/port_stay.h"

#include "net/stream_send.h"

#include <algorithm>
#include <iterator>

namespace rtls {

static bool has_news(zsock_t* sock) noexcept
{
    return sock && has_events(zsock_resolve(sock));
}

// Tells of the next news of a socket of the library, all of whose news have been asked for.
static int descriptor_of(zsock_t* sock) noexcept
{
    return sock ? zsock_fd(sock) : -1;
}

void port_stay::watch(int descriptor) noexcept
{
    m_sources[m_number++] = {descriptor, POLLIN, 0}; // one below 0 never has news
}

// False when the loop knows already that another source has news: its descriptor would not tell again. The end of
// the actor is not asked after: it comes once, and may wait until the stay's end.
bool port_stay::begin() noexcept
{
    zsock_t* const others[] = {m_server.interthread_sever_sock, m_server.proxy_sock,
                               m_server.proxy_link.events(), m_server.proxy_input_link.events(),
                               m_server.msg_handler_link.events()};
    if (std::any_of(std::begin(others), std::end(others), has_news))
        return false;
    watch(descriptor_of(m_server.win_sock));
    for (zsock_t* sock : others)
        watch(descriptor_of(sock));
    watch(m_server.discovery_sock_descriptor);
    watch(m_server.calls ? m_server.calls->descriptor() : -1);
    return true;
}

int64_t port_stay::end() const noexcept
{
    const bool timers_are_near = m_server.flush_timer_is_active || m_server.end_timer_is_active;
    return m_began + (timers_are_near ? longest_beside_timers_us : longest_us);
}

bool port_stay::goes_on(std::optional<int64_t> drained_at) noexcept
{
    if (m_server.intake_is_paused || !m_server.cuts.empty())
        return false;
    const int64_t left_us = end() - (drained_at ? *drained_at : zclock_usecs());
    if (left_us <= 0 || (m_number == 0 && !begin()))
        return false;
    const int wait_ms = drained_at ? static_cast<int>((left_us + 999) / 1000) : 0;
    const int number = poll(m_sources.data(), m_number, wait_ms);
    if (number < 0 || std::any_of(m_sources.begin() + 1, m_sources.begin() + m_number,
                                  [](const pollfd& source) { return source.revents != 0; }))
        return false;
    return number > 0 || !drained_at;
}

} // namespace rtls
