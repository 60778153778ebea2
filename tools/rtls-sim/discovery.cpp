#include "rtls-sim/discovery.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace sim {

static constexpr uint8_t request_address = 1;
static constexpr size_t echo_size = 6;
static constexpr size_t address_answer_size = 15;

std::optional<sockaddr_in> resolve(const std::string& host, uint16_t port)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return std::nullopt;
    sockaddr_in address{};
    std::copy_n(reinterpret_cast<const char*>(found->ai_addr), sizeof address,
                reinterpret_cast<char*>(&address));
    freeaddrinfo(found);
    address.sin_port = htons(port);
    return address;
}

std::string endpoint_text(const sockaddr_in& address)
{
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return fmt::format("{}:{}", text, ntohs(address.sin_port));
}

// Sends one datagram and waits for the answer.
static bytes ask(const sockaddr_in& where, view request, std::chrono::milliseconds timeout)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return {};
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    bytes answer;
    if (sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&where),
               sizeof where) == static_cast<ssize_t>(request.size())) {
        pollfd waiting{fd, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(timeout.count())) == 1) {
            answer.resize(64);
            answer.resize(static_cast<size_t>(std::max<ssize_t>(0, recv(fd, answer.data(), 64, 0))));
        }
    }
    close(fd);
    return answer;
}

static sockaddr_in read_endpoint(reader& in)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(in.be32());
    address.sin_port = htons(in.be16());
    return address;
}

std::optional<sockaddr_in> discover_gateway(const sockaddr_in& where, const mac_bytes& mac,
                                            std::chrono::milliseconds timeout)
{
    const bytes request = writer{}.u8(request_address).raw(mac).take();
    const bytes answer = ask(where, request, timeout);
    reader in{answer};
    const view echoed = in.take(request.size());
    if (answer.size() != address_answer_size || !std::ranges::equal(echoed, request))
        return std::nullopt;
    return read_endpoint(in);
}

std::optional<sockaddr_in> discover_self(const sockaddr_in& where, std::chrono::milliseconds timeout)
{
    const bytes answer = ask(where, bytes(echo_size), timeout);
    if (answer.size() != echo_size)
        return std::nullopt;
    reader in{answer};
    return read_endpoint(in);
}

} // namespace sim
