#include "support/free_port.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <string>

namespace rtls {

// Above what the end-to-end tests take from, however many run at once here.
static constexpr unsigned first_port = 22'000;
static constexpr unsigned ports_in_block = 40;
static constexpr unsigned blocks = 250;

static bool can_bind(int type, unsigned port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return bound;
}

// A block belongs to who holds its name as a socket, which the system lets go of when the process ends.
static bool claim(unsigned block)
{
    const std::string name = "rtls-test-ports-" + std::to_string(block);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1); // behind a zero: no file
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0)
        return true; // and the socket stays open on purpose
    close(fd);
    return false;
}

static unsigned claim_some_block()
{
    const auto start = static_cast<unsigned>(getpid());
    for (unsigned i = 0; i < blocks; ++i)
        if (const unsigned block = (start + i) % blocks; claim(block))
            return block;
    throw std::runtime_error("free_port: other tests hold all ports");
}

uint16_t free_port()
{
    static std::mutex mutex;
    static unsigned next = 0;
    static unsigned end = 0;
    const std::lock_guard guard{mutex};
    for (;;) {
        if (next == end) {
            next = first_port + claim_some_block() * ports_in_block;
            end = next + ports_in_block;
        }
        const unsigned port = next++;
        if (can_bind(SOCK_STREAM, port) && can_bind(SOCK_DGRAM, port))
            return static_cast<uint16_t>(port);
    }
}

} // namespace rtls
