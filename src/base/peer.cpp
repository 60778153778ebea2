#include "base/peer.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>

namespace rtls {

ipv4_text::ipv4_text(in_addr address) noexcept
{
    inet_ntop(AF_INET, &address, m_text.data(), INET_ADDRSTRLEN);
}

colon_mac_text::colon_mac_text(const uint8_t* mac) noexcept
{
    snprintf(m_text.data(), m_text.size(), "%02x%02x%02x%02x%02x%01x:%01x%02x%02x", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5] >> 4, mac[5] & 0x0F, mac[6], mac[7]);
}

bool read_peer_address(int fd, sockaddr_in& address) noexcept
{
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (fd < 0 || getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0)
        return false;
    address = peer;
    return true;
}

void cut_connection(int fd, const sockaddr_in& peer) noexcept
{
    sockaddr_in present{};
    const bool is_same = peer.sin_port != 0 && read_peer_address(fd, present) &&
                         present.sin_addr.s_addr == peer.sin_addr.s_addr && present.sin_port == peer.sin_port;
    if (is_same)
        shutdown(fd, SHUT_RDWR);
}

} // namespace rtls
