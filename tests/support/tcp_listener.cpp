#include "support/tcp_listener.h"

#include "support/free_port.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace rtls {

static int checked(int result, const char* call)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), call);
    return result;
}

tcp_listener::tcp_listener() : tcp_listener(free_port()) {}

tcp_listener::tcp_listener(uint16_t port)
    : m_fd(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")), m_port(port)
{
    const int yes = 1; // whatever ended on that port a moment ago
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(m_port);
    checked(bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    checked(listen(m_fd, 64), "listen");
}

tcp_listener::~tcp_listener()
{
    close(m_fd);
}

int tcp_listener::accept()
{
    return checked(accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC), "accept4");
}

} // namespace rtls
