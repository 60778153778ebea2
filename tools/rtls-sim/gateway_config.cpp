#include "rtls-sim/gateway_config.h"

#include <czmq.h>
#include <fmt/format.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
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

// Whether a port of this machine can be bound.
static bool is_free(int type, uint16_t port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const int on = 1;
    if (type == SOCK_STREAM) // connections that linger from the last run do no harm; listeners still do
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                       (type == SOCK_DGRAM || listen(fd, 1) == 0);
    close(fd);
    return bound;
}

gateway_ports free_ports(port_choice choice)
{
    // Below the range from which outgoing connections take theirs: they could have it before the gateway.
    std::random_device seed;
    std::mt19937 random{seed()};
    std::uniform_int_distribution<unsigned> low_ports{10'000, 31'999};
    gateway_ports ports;
    std::set<uint16_t> taken;
    const auto settle = [&](int type, uint16_t& port) {
        if (choice == port_choice::any_free || !is_free(type, port))
            do
                port = static_cast<uint16_t>(low_ports(random));
            while (taken.contains(port) || !is_free(type, port));
        taken.insert(port);
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
