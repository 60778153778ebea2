#include "base/config_keys.h"

#include <algorithm>
#include <climits>

namespace rtls {

static constexpr int64_t highest_port = UINT16_MAX;
static constexpr int64_t most_images = 5;

// --- rows that are alike

static constexpr config_key text_key(std::string_view path, key_type type, std::string_view example,
                                     std::string_view help)
{
    return {.path = path,
            .type = type,
            .presence = key_presence::required,
            .misread = key_misread::refused,
            .is_cut = false,
            .lowest = 0,
            .highest = 0,
            .preset = {},
            .without = {},
            .door = {},
            .example = example,
            .help = help};
}

static constexpr config_key optional_key(std::string_view path, key_type type, std::string_view without,
                                         std::string_view example, std::string_view help)
{
    config_key key = text_key(path, type, example, help);
    key.presence = key_presence::optional;
    key.without = without;
    return key;
}

static constexpr config_key of_door(std::string_view door, config_key key)
{
    key.door = door;
    return key;
}

// What holds without it is a value.
static constexpr config_key preset_to(std::string_view value, config_key key)
{
    key.preset = value;
    return key;
}

static constexpr config_key between(int64_t lowest, int64_t highest, config_key key)
{
    key.lowest = lowest;
    key.highest = highest;
    return key;
}

static constexpr config_key port_key(std::string_view path, std::string_view example, std::string_view help)
{
    config_key key = between(1, highest_port, text_key(path, key_type::port, example, help));
    key.is_cut = true;
    return key;
}

static constexpr config_key images_key(std::string_view path, std::string_view example, std::string_view help)
{
    config_key key = between(1, most_images, text_key(path, key_type::number, example, help));
    key.is_cut = true;
    return key;
}

static constexpr config_key address_key(std::string_view path, std::string_view preset, std::string_view door,
                                        std::string_view example, std::string_view help)
{
    return preset_to(preset, of_door(door, optional_key(path, key_type::address, {}, example, help)));
}

static constexpr config_key bound_key(std::string_view path, std::string_view door, std::string_view example,
                                      std::string_view help)
{
    return of_door(door,
                   between(1, LONG_MAX, optional_key(path, key_type::number, "no limit", example, help)));
}

static constexpr config_key list_key(std::string_view path, key_type type, std::string_view door,
                                     std::string_view example, std::string_view help)
{
    return of_door(door, optional_key(path, type, "everybody", example, help));
}

static constexpr config_key backlog_key()
{
    config_key key = between(
        1, INT_MAX,
        optional_key(
            "ports/win_backlog", key_type::number, {}, "1024",
            "How many connections to the WIN port may wait to be accepted. 100, the library's own, lets many "
            "bridges down when all of them reconnect at once."));
    key.misread = key_misread::ignored;
    return of_door("win", preset_to("100", key));
}

static constexpr config_key http_port_key()
{
    config_key key = between(1, highest_port,
                             text_key("http/port", key_type::port, "8080",
                                      "TCP: health, figures for Prometheus, and what the gateway knows."));
    key.presence = key_presence::required_in_section;
    return of_door("http", key);
}

static constexpr config_key link_key(std::string_view path, std::string_view help)
{
    return optional_key(path, key_type::file, "not encrypted", "/etc/rtls-gateway/servers.key", help);
}

static constexpr config_key debug_key(std::string_view path, std::string_view help)
{
    config_key key = preset_to("no", optional_key(path, key_type::boolean, {}, "no", help));
    key.misread = key_misread::ignored;
    return key;
}

// --- the table

static constexpr config_key all_keys[] = {
    text_key(
        "pidfile", key_type::path, "/run/rtls-gateway/rtls-gateway.pid",
        "Receives the process id once the daemon serves. Neither truncated before nor removed afterwards."),
    optional_key("debug_broker_address", key_type::endpoint, "the system log only", "tcp://127.0.0.1:5558",
                 "The endpoint of the debug broker (a bound PULL socket), which gets every log record."),
    images_key("firmware_files", "5",
               "How many firmware images the store for over-the-air updates holds: 1 to 5."),
    optional_key("firmware_urls", key_type::url_prefixes, "any URL with http, https or file",
                 "https://files.example/firmware/",
                 "Where firmware may come from: beginnings of URLs, with commas or blanks between."),
    preset_to("no", optional_key(
                        "firmware_keep_ordered", key_type::boolean, {}, "yes",
                        "Whether an operator's download leaves the images alone that the servers ordered.")),

    of_door("terminal", port_key("ports/terminal", "4000", "TCP, plain text: the operators' terminal.")),
    address_key("ports/terminal_address", "*", "terminal", "127.0.0.1",
                "The address of this host at which operators are served."),
    bound_key("ports/terminal_connections", "terminal", "32", "How many operators may be connected at once."),
    bound_key("ports/terminal_connections_per_address", "terminal", "4",
              "How many operators may be connected at once from one address."),
    list_key("ports/terminal_networks", key_type::networks, "terminal", "10.20.0.0/16, 192.168.7.9",
             "The IPv4 networks from which operators may connect."),
    of_door("win", port_key("ports/win", "4001", "TCP: bridges and sub-gateways.")),
    address_key("ports/win_address", "*", "win", "10.20.0.1",
                "The address of this host at which bridges are served."),
    bound_key("ports/win_connections", "win", "1000", "How many bridges may be connected at once."),
    bound_key("ports/win_connections_per_address", "win", "16",
              "How many bridges may be connected at once from one address."),
    list_key("ports/win_networks", key_type::networks, "win", "10.20.0.0/16, 192.168.7.9",
             "The IPv4 networks from which bridges may connect."),
    list_key("ports/win_macs", key_type::macs, "win", "0012AB0000000000/24, 0012AC0000000001",
             "Which nodes may register: MACs, or ranges by their first bits."),
    backlog_key(),
    of_door("discovery",
            port_key("ports/discovery", "4002", "UDP: answers devices that look for the gateway's address.")),
    address_key("ports/discovery_address", "*", "discovery", "10.20.0.1",
                "The address of this host at which devices are answered. Broadcasts are heard at `*` alone."),

    optional_key(
        "curve/certificate", key_type::file, "no link may be encrypted",
        "/etc/rtls-gateway/gateway.key_secret",
        "The gateway's own certificate, with its secret key. Required where a link is to be encrypted."),
    link_key("curve/message_handler", "The public certificate of the message handler: encrypts that link."),
    link_key("curve/pub_sub_proxy", "The public certificate of the proxy: encrypts that link."),
    link_key("curve/pub_sub_proxy_input", "The public certificate of the proxy's input: encrypts that link."),
    link_key("curve/debug_broker", "The public certificate of the debug broker: encrypts that link."),
    optional_key("curve/tap", key_type::file, "not encrypted", "/etc/rtls-gateway/subscribers.key",
                 "The public certificate of the tap's subscribers: encrypts the tap, for them alone."),

    http_port_key(),
    address_key("http/address", "127.0.0.1", "http", "127.0.0.1",
                "The address of this host at which HTTP is served; `*` for all."),
    of_door("http", optional_key("http/token", key_type::file, "no token is asked for",
                                 "/etc/rtls-gateway/http.token",
                                 "A file with the token that every request must bring along.")),

    optional_key("tap/address", key_type::endpoint, "no tap", "tcp://127.0.0.1:5559",
                 "The endpoint at which the tap publishes what passes: tcp or ipc, bound by the daemon."),

    text_key("pub_sub_proxy/address", key_type::host, "127.0.0.1",
             "The host of the publish/subscribe proxy."),
    port_key("pub_sub_proxy/port", "5555", "TCP: where commands come from."),
    port_key("pub_sub_proxy/input_port", "5556", "TCP: where management messages go to."),
    text_key("message_handler/address", key_type::host, "127.0.0.1",
             "The host of the message handler, which gets the nodes' reports."),
    port_key("message_handler/port", "5557", "TCP: where reports go to."),

    debug_key("debug/raw", "Whether the debug stream has the bytes of messages, from the start on."),
    debug_key("debug/parsing", "Whether the debug stream has what messages say, from the start on."),
    debug_key("debug/terminal", "Whether the debug stream has what operators do, from the start on."),
    debug_key("debug/win",
              "Whether the debug stream has the coming and going of bridges, from the start on."),
    debug_key("debug/discovery",
              "Whether the debug stream has what devices ask for, and are answered, from the start on."),
    debug_key("debug/develop", "Whether the debug stream has what developers look for, failed downloads "
                               "among it, from the start on."),
    debug_key("debug/ul_tdoa", "Kept for scripts: UL-TDOA data is part of `debug/parsing`."),
};

// The simulator writes and reads the daemon's configuration, and keeps a port of its own there.
static constexpr std::string_view foreign_sections[] = {"simulator"};

std::string_view config_key::section() const noexcept
{
    const size_t slash = path.find('/');
    return slash == std::string_view::npos ? std::string_view{} : path.substr(0, slash);
}

std::string_view config_key::name() const noexcept
{
    return path.substr(path.find('/') + 1); // npos + 1: all of it
}

std::span<const config_key> config_keys() noexcept
{
    return all_keys;
}

const config_key* find_config_key(std::string_view path) noexcept
{
    const auto* const found = std::ranges::find(all_keys, path, &config_key::path);
    return found == std::end(all_keys) ? nullptr : found;
}

std::string_view name_of(key_type type) noexcept
{
    switch (type) {
    case key_type::path:
        return "path";
    case key_type::file:
        return "file";
    case key_type::host:
        return "host";
    case key_type::endpoint:
        return "endpoint";
    case key_type::port:
        return "port";
    case key_type::number:
        return "number";
    case key_type::boolean:
        return "boolean";
    case key_type::address:
        return "IPv4 address";
    case key_type::networks:
        return "IPv4 networks";
    case key_type::macs:
        return "MACs";
    case key_type::url_prefixes:
        return "URL prefixes";
    }
    return {};
}

std::span<const std::string_view> foreign_config_sections() noexcept
{
    return foreign_sections;
}

} // namespace rtls
