#include "support/free_port.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

namespace rtls {

static bool can_bind(int type, uint16_t port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return bound;
}

uint16_t free_port()
{
    static std::mt19937 random{std::random_device{}()};
    std::uniform_int_distribution<unsigned> ports{10'000, 32'000};
    for (;;) {
        const auto port = static_cast<uint16_t>(ports(random));
        if (can_bind(SOCK_STREAM, port) && can_bind(SOCK_DGRAM, port))
            return port;
    }
}

} // namespace rtls
