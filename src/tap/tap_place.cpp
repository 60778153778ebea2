#include "tap/tap_place.h"

#include "core/descriptor_duplicate.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>

namespace rtls {

static constexpr std::string_view local_transport = "ipc://";

void tap_place::set(std::string_view endpoint) noexcept
{
    m_port = 0;
    m_path.fill('\0');
    if (endpoint.starts_with(local_transport)) {
        const std::string_view path = endpoint.substr(local_transport.size());
        std::copy_n(path.data(), std::min(path.size(), m_path.size()), m_path.data());
        if (m_path[0] == '@') // a name without a file begins with a zero
            m_path[0] = '\0';
        return;
    }
    const std::string_view port = endpoint.substr(endpoint.rfind(':') + 1);
    std::from_chars(port.data(), port.data() + port.size(), m_port);
}

// Listening sockets have no peer.
static bool is_connected(int fd) noexcept
{
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
}

bool tap_place::has(int fd) const noexcept
{
    union {
        sockaddr any;
        sockaddr_in of_ipv4;
        sockaddr_in6 of_ipv6;
        sockaddr_un local;
        sockaddr_storage room;
    } own{};
    own.room = {};
    socklen_t size = sizeof own;
    if (getsockname(fd, &own.any, &size) != 0 || !is_connected(fd))
        return false;
    switch (own.any.sa_family) {
    case AF_INET:
        return m_port != 0 && ntohs(own.of_ipv4.sin_port) == m_port;
    case AF_INET6:
        return m_port != 0 && ntohs(own.of_ipv6.sin6_port) == m_port;
    case AF_UNIX:
        return m_port == 0 && std::memcmp(own.local.sun_path, m_path.data(), m_path.size()) == 0;
    default:
        return false;
    }
}

bool tap_place::bears(int fd) noexcept
try {
    return fd < 0 || ++m_lately[fd].messages <= most_at_once;
} catch (const std::bad_alloc&) {
    return true;
}

bool tap_place::cut(int fd) noexcept
try {
    if (const auto known = m_lately.find(fd); known != m_lately.end() && known->second.looks_since_cut >= 0)
        return false;
    const descriptor_duplicate held{fd};
    if (held.get() < 0 || !has(held.get()))
        return false;
    m_lately[fd].looks_since_cut = 0;
    shutdown(held.get(), SHUT_RDWR);
    return true;
} catch (const std::bad_alloc&) {
    return false; // the next look
}

void tap_place::look_is_over(bool all_is_read) noexcept
{
    if (all_is_read)
        return m_lately.clear();
    for (auto& [fd, one] : m_lately)
        if (one.looks_since_cut >= 0)
            ++one.looks_since_cut;
    std::erase_if(m_lately, [](const auto& entry) { return entry.second.looks_since_cut > looks_of_rest; });
}

} // namespace rtls
