#include "base/peer.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>

namespace rtls {

ipv4_text::ipv4_text(in_addr address) noexcept
{
    inet_ntop(AF_INET, &address, m_text.data(), INET_ADDRSTRLEN);
}

ipv6_text::ipv6_text(const uint8_t* address) noexcept
{
    inet_ntop(AF_INET6, address, m_text.data(), INET6_ADDRSTRLEN);
}

colon_mac_text::colon_mac_text(const uint8_t* mac) noexcept
{
    snprintf(m_text.data(), m_text.size(), "%02x%02x%02x%02x%02x%01x:%01x%02x%02x", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5] >> 4, mac[5] & 0x0F, mac[6], mac[7]);
}

// One of the two names of a socket: by getsockname or getpeername.
static bool read_name(int (*read)(int, sockaddr*, socklen_t*), int fd, sockaddr_in& name) noexcept
{
    socklen_t length = sizeof name;
    return read(fd, reinterpret_cast<sockaddr*>(&name), &length) == 0 && name.sin_family == AF_INET;
}

bool read_peer_address(int fd, in_port_t own_port, sockaddr_in& address) noexcept
{
    sockaddr_in own{};
    sockaddr_in peer{};
    if (fd < 0 || !read_name(getsockname, fd, own) || ntohs(own.sin_port) != own_port ||
        !read_name(getpeername, fd, peer))
        return false;
    address = peer;
    return true;
}

} // namespace rtls
