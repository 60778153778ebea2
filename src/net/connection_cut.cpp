#include "net/connection_cut.h"

#include "base/peer.h"
#include "core/descriptor_duplicate.h"
#include "net/stream_send.h"

#include <sys/socket.h>
#include <zmq.h>

#include <cerrno>
#include <new>

namespace rtls {

static bool is_connection(int fd, in_port_t own_port, const sockaddr_in& peer) noexcept
{
    sockaddr_in present{};
    return read_peer_address(fd, own_port, present) && present.sin_addr.s_addr == peer.sin_addr.s_addr &&
           present.sin_port == peer.sin_port;
}

void connection_cuts::want(const char* identity, int fd, const sockaddr_in& peer) noexcept
{
    if (peer.sin_port == 0)
        return;
    forget(identity);
    try {
        m_wanted.push_back({identity, fd, peer});
    } catch (const std::bad_alloc&) {
        return;
    }
}

void connection_cuts::forget(const char* identity) noexcept
{
    std::erase_if(m_wanted, [=](const wanted_cut& wanted) { return wanted.identity == identity; });
}

bool connection_cuts::is_settled(const wanted_cut& wanted, void* socket, in_port_t own_port) noexcept
{
    const descriptor_duplicate held{wanted.fd};
    if (held.get() < 0)
        return errno == EBADF;
    if (!is_connection(held.get(), own_port, wanted.peer))
        return true; // the number has gone to somebody else
    if (has_events(socket))
        return false; // its end may be among them
    shutdown(held.get(), SHUT_RDWR);
    return true;
}

void connection_cuts::carry_out(void* socket, in_port_t own_port) noexcept
{
    std::erase_if(m_wanted, [=](const wanted_cut& wanted) { return is_settled(wanted, socket, own_port); });
}

} // namespace rtls
