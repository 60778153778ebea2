#include "support/tcp_state.h"

#include <linux/sockios.h>
#include <linux/tcp.h> // its tcp_info has the window, other than the C library's
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rtls {

bool tcp_is_moving(int fd)
{
    pollfd item{fd, POLLOUT, 0};
    int waiting = 0;
    int unsent = 0;
    tcp_info info{};
    socklen_t size = sizeof info;
    ioctl(fd, SIOCOUTQ, &waiting);
    ioctl(fd, SIOCOUTQNSD, &unsent);
    getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size);
    return poll(&item, 1, 0) > 0 || waiting != unsent || info.tcpi_snd_wnd > 0;
}

void tcp_fix_send_buffer(int fd)
{
    const int size = 65536;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

int tcp_descriptor_towards(uint16_t peer_port)
{
    constexpr int highest = 4096;
    for (int fd = 0; fd < highest; ++fd) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == peer_port)
            return fd;
    }
    return -1;
}

} // namespace rtls
