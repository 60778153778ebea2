#include "gateway_config.h"

#include <czmq.h>
#include <fmt/format.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <set>

namespace sim {

static void read_port(zconfig_t* config, const char* path, uint16_t& port)
{
    const char* text = zconfig_get(config, path, nullptr);
    if (text != nullptr)
        port = static_cast<uint16_t>(std::strtoul(text, nullptr, 0));
}

std::optional<gateway_ports> read_ports(const std::string& config_file)
{
    zconfig_t* config = zconfig_load(config_file.c_str());
    if (config == nullptr)
        return std::nullopt;
    gateway_ports ports;
    read_port(config, "ports/terminal", ports.terminal);
    read_port(config, "ports/win", ports.win);
    read_port(config, "ports/discovery", ports.discovery);
    read_port(config, "pub_sub_proxy/port", ports.proxy);
    read_port(config, "pub_sub_proxy/input_port", ports.proxy_input);
    read_port(config, "message_handler/port", ports.handler);
    read_port(config, "simulator/images", ports.images);
    const std::string broker = zconfig_get(config, "debug_broker_address", "");
    if (const size_t colon = broker.rfind(':'); colon != std::string::npos)
        ports.broker = static_cast<uint16_t>(std::strtoul(broker.c_str() + colon + 1, nullptr, 10));
    zconfig_destroy(&config);
    return ports;
}

// Binds to a port of this machine, and returns it; 0 when it is taken.
static uint16_t try_port(int type, uint16_t port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    const int on = 1;
    if (type == SOCK_STREAM) // connections that linger from the last run do no harm; listeners still do
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    uint16_t bound = 0;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        (type == SOCK_DGRAM || listen(fd, 1) == 0))
        bound = port;
    close(fd);
    return bound;
}

// Below the range from which the system takes the ports of outgoing connections: from there somebody
// could get the port between our looking and its use.
static uint16_t any_port()
{
    static std::mt19937 random{std::random_device{}()};
    return static_cast<uint16_t>(std::uniform_int_distribution<unsigned>{10'000, 32'000}(random));
}

gateway_ports free_ports(port_choice choice)
{
    gateway_ports ports;
    std::set<uint16_t> taken;
    const auto settle = [&](int type, uint16_t& port) {
        uint16_t found = choice == port_choice::usual_if_free ? try_port(type, port) : uint16_t{0};
        while (found == 0 || taken.contains(found))
            found = try_port(type, any_port());
        taken.insert(found);
        port = found;
    };
    settle(SOCK_STREAM, ports.terminal);
    settle(SOCK_STREAM, ports.win);
    settle(SOCK_DGRAM, ports.discovery);
    settle(SOCK_STREAM, ports.proxy);
    settle(SOCK_STREAM, ports.proxy_input);
    settle(SOCK_STREAM, ports.handler);
    settle(SOCK_STREAM, ports.broker);
    settle(SOCK_STREAM, ports.images);
    return ports;
}

std::string config_text(const gateway_ports& ports, const std::string& pid_file)
{
    return fmt::format("pidfile = \"{}\"\n"
                       "firmware_files = 5\n"
                       "debug_broker_address = \"tcp://127.0.0.1:{}\"\n"
                       "debug\n"
                       "    raw = n\n"
                       "    parsing = n\n"
                       "    terminal = n\n"
                       "    win = n\n"
                       "    discovery = n\n"
                       "    develop = n\n"
                       "    ul_tdoa = n\n"
                       "ports\n"
                       "    terminal = {}\n"
                       "    win = {}\n"
                       "    win_backlog = 1024\n"
                       "    discovery = {}\n"
                       "pub_sub_proxy\n"
                       "    address = 127.0.0.1\n"
                       "    port = {}\n"
                       "    input_port = {}\n"
                       "message_handler\n"
                       "    address = 127.0.0.1\n"
                       "    port = {}\n"
                       "simulator\n" // not read by the gateway
                       "    images = {}\n",
                       pid_file, ports.broker, ports.terminal, ports.win, ports.discovery, ports.proxy,
                       ports.proxy_input, ports.handler, ports.images);
}

} // namespace sim
