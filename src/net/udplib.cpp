#include "net/udplib.h"

#include "base/common.h"
#include "base/null_check.h"
#include "base/unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace rtls {

// Broadcasts are answered, a restart need not wait, and each datagram tells the local address it was
// sent to.
static bool set_options(int handle)
{
    constexpr struct {
        int level;
        int option;
    } options[] = {{SOL_SOCKET, SO_BROADCAST}, {SOL_SOCKET, SO_REUSEADDR}, {IPPROTO_IP, IP_PKTINFO}};
    constexpr int on = 1;
    for (const auto& o : options)
        if (setsockopt(handle, o.level, o.option, &on, sizeof on) != 0)
            return false;
    return true;
}

static bool bind_to_port(int handle, in_addr own_address, in_port_t port_nbr)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_nbr);
    address.sin_addr = own_address;
    return bind(handle, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0;
}

bool udp_new_connection(in_port_t port_nbr, int* handle)
{
    return udp_new_connection_at({htonl(INADDR_ANY)}, port_nbr, handle);
}

bool udp_new_connection_at(in_addr own_address, in_port_t port_nbr, int* handle)
{
    static constexpr char reporter[] = "udp_new_connection"; // as operators know it
    if (any_null(reporter, handle))
        return false;
    unique_fd fd{socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)};
    *handle = fd.get();
    if (!fd) {
        log_system_call_error(reporter, "socket");
        return false;
    }
    if (!set_options(fd.get())) {
        log_system_call_error(reporter, "setsockopt");
        return false;
    }
    if (!bind_to_port(fd.get(), own_address, port_nbr)) {
        log_system_call_error(reporter, "bind");
        return false;
    }
    (void)fd.release();
    return true;
}

void udp_destroy(int handle)
{
    if (handle != -1)
        close(handle);
}

// Leaves errno as it is. EAGAIN may come with every datagram, and says nothing that the caller does not know.
static void log_failure(const char* function, const char* call)
{
    const int error = errno;
    if (error != EAGAIN)
        log_system_call_error(function, call);
    errno = error;
}

bool udp_never_wait(int handle)
{
    const int flags = fcntl(handle, F_GETFL);
    if (flags != -1 && fcntl(handle, F_SETFL, flags | O_NONBLOCK) != -1)
        return true;
    log_system_call_error(__func__, "fcntl");
    return false;
}

bool udp_sendto(int handle, const void* buffer, size_t length, const sockaddr_in* sockaddr, socklen_t si_len)
{
    if (handle == -1)
        return false;
    const auto* peer = reinterpret_cast<const struct sockaddr*>(sockaddr);
    if (sendto(handle, buffer, length, 0, peer, si_len) != -1)
        return true;
    log_failure(__func__, "sendto");
    return false;
}

ssize_t udp_recv(int handle, void* buffer, size_t length, sockaddr_in* sockaddr, socklen_t si_len)
{
    if (handle == -1)
        return 0;
    auto* peer = reinterpret_cast<struct sockaddr*>(sockaddr);
    const ssize_t received = recvfrom(handle, buffer, length, 0, peer, &si_len);
    if (received != -1)
        return received;
    log_failure(__func__, "recvfrom");
    return 0;
}

ssize_t udp_recvmsg(int handle, msghdr* msg)
{
    if (handle == -1)
        return 0;
    const ssize_t received = recvmsg(handle, msg, 0);
    if (received != -1)
        return received;
    log_failure(__func__, "recvmsg");
    return 0;
}

} // namespace rtls
