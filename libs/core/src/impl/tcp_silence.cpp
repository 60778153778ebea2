#include "core/tcp_silence.h"

#include "core/descriptor_duplicate.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>

namespace rtls {

namespace {

// Systems before Linux 6.15 do not have it: there, a window that has been closed for long is probed up to two
// minutes apart, and whoever vanishes while it is closed is noticed so much later.
constexpr int tcp_rto_max_ms = 44;
constexpr int longest_pause_of_probes_ms = 2500;

bool read_info(int fd, tcp_info& info) noexcept
{
    socklen_t size = sizeof info;
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0;
}

} // namespace

bool tcp_silence::read_names(int fd, names& read) noexcept
{
    read = {};
    socklen_t own_size = sizeof(sockaddr_storage);
    socklen_t peer_size = sizeof(sockaddr_storage);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&read.both[0]), &own_size) == 0 &&
           getpeername(fd, reinterpret_cast<sockaddr*>(&read.both[1]), &peer_size) == 0;
}

bool tcp_silence::is_ours(int fd) const noexcept
{
    names present;
    return fd >= 0 && read_names(fd, present) && std::memcmp(&present, &m_names, sizeof present) == 0;
}

bool tcp_silence::begin(int fd) noexcept
{
    tcp_info info{};
    const bool is_tcp = fd >= 0 && read_names(fd, m_names) && read_info(fd, info);
    m_fd = is_tcp ? fd : -1;
    m_is_bounded = false;
    m_judge = silence_judge{m_silence_ms};
    return is_tcp;
}

bool tcp_silence::has_vanished(int64_t now_ms) noexcept
{
    tcp_info info{};
    if (!is_ours(m_fd) || !read_info(m_fd, info))
        return false;
    if (!m_is_bounded)
        (void)setsockopt(m_fd, IPPROTO_TCP, tcp_rto_max_ms, &longest_pause_of_probes_ms,
                         sizeof longest_pause_of_probes_ms);
    m_is_bounded = true;
    const unsigned unanswered = std::max(info.tcpi_retransmits, info.tcpi_probes);
    return m_judge.has_vanished(unanswered, info.tcpi_last_ack_recv, now_ms);
}

bool tcp_silence::cut() noexcept
{
    const descriptor_duplicate held{m_fd};
    if (held.get() < 0 && is_ours(m_fd))
        return false;
    if (is_ours(held.get()))
        (void)shutdown(held.get(), SHUT_RDWR);
    end();
    return true;
}

} // namespace rtls
