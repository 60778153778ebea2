// The servers upstream: whether they can be connected to, as far as one can say; and ports that two want.
#include "rtls-gateway-check/check.h"
#include "rtls-gateway-check/endpoint.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <set>

namespace rtls::check {

namespace {

// A server that the daemon connects to.
struct server {
    std::string_view key; // of its port, or of its endpoint
    std::string host;
    int64_t port;
};

// A TCP port that the daemon listens on.
struct listener {
    std::string_view key;
    std::string address; // "*": all
    int64_t port;
};

} // namespace

// --- hosts

// False after a finding that makes the rest about this host pointless.
static bool check_host(inspection& at, std::string_view key)
{
    const std::string& host = at.effective.text(key);
    if (host.empty()) {
        at.add(severity::harm, "host", key, "it is empty: no server can be reached",
               "write the server's name or IPv4 address");
        return false;
    }
    if (is_connectable(host))
        return true;
    at.add(severity::ends, "host", key,
           fmt::format("\"{}\" is no host: the daemon ends when it connects to it", host),
           host.find("://") != std::string::npos ? "write the host alone: the key for the port is another"
                                                 : "write the server's name or IPv4 address");
    return false;
}

static bool check_broker(inspection& at)
{
    static constexpr std::string_view key = "debug_broker_address";
    const std::string& text = at.effective.text(key);
    const auto parts = parse_endpoint(text);
    const bool is_tcp = parts && parts->transport == "tcp";
    if (is_tcp && parts->port && !parts->host.empty() && is_connectable(parts->host))
        return true;
    if (!parts || parts->transport != "ipc")
        at.add(severity::harm, "endpoint", key,
               fmt::format("\"{}\" is no endpoint that another program can serve: the broker gets nothing",
                           text),
               "write tcp://, the broker's host, : and its port, or take the key out");
    return false;
}

static bool has_item(const inspection& at, std::string_view key)
{
    return at.effective.at(key).item != nullptr;
}

static void add_server(inspection& at, std::vector<server>& servers, std::string_view host_key,
                       std::initializer_list<std::string_view> port_keys)
{
    if (!has_item(at, host_key) || !check_host(at, host_key))
        return;
    for (const std::string_view key : port_keys)
        if (has_item(at, key) && at.effective.at(key).is_taken())
            servers.push_back({key, at.effective.text(host_key), at.effective.number(key)});
}

static std::vector<server> find_servers(inspection& at)
{
    std::vector<server> servers;
    add_server(at, servers, "pub_sub_proxy/address", {"pub_sub_proxy/port", "pub_sub_proxy/input_port"});
    add_server(at, servers, "message_handler/address", {"message_handler/port"});
    if (has_item(at, "debug_broker_address") && check_broker(at)) {
        const auto parts = parse_endpoint(at.effective.text("debug_broker_address"));
        servers.push_back({"debug_broker_address", std::string{parts->host}, *parts->port});
    }
    return servers;
}

// --- names

static std::string_view key_of_host(std::string_view key)
{
    if (key.starts_with("pub_sub_proxy/"))
        return "pub_sub_proxy/address";
    return key.starts_with("message_handler/") ? "message_handler/address" : key;
}

// Without what the library takes away before it asks: an own address in front, brackets.
static std::string bare(std::string host)
{
    host.erase(0, host.find(';') + 1); // npos + 1: nothing
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    return host;
}

static void check_resolution(inspection& at, const std::vector<server>& servers)
{
    std::map<std::string_view, std::string> names; // by the key of the host
    for (const server& one : servers)
        if (!is_ipv4(one.host))
            names.emplace(key_of_host(one.key), bare(one.host));
    std::vector<std::string> asked;
    asked.reserve(names.size());
    for (const auto& [key, name] : names)
        asked.push_back(name);
    const auto reasons = at.options.machine->resolve(asked);
    size_t index = 0;
    for (const auto& [key, name] : names) {
        if (const auto& reason = reasons[index++])
            at.add(severity::warning, "unresolved", key,
                   fmt::format("\"{}\" has no IPv4 address from here: {}", name, *reason),
                   "correct the name, write an address, or see to the name server");
    }
}

// --- the tap

static bool check_tap(inspection& at)
{
    static constexpr std::string_view key = "tap/address";
    const std::string& text = at.effective.at(key).item->value;
    const auto parts = parse_endpoint(text);
    const bool is_tcp = parts && parts->transport == "tcp";
    const bool is_local = parts && parts->transport == "ipc";
    if (at.effective.at(key).is_taken() && (is_local || (is_tcp && parts->port && *parts->port != 0)))
        return is_tcp;
    at.add(at.effective.at(key).is_taken() ? severity::ends : severity::refused, "endpoint", key,
           fmt::format("\"{}\" is no endpoint that the tap can be bound to", text),
           "write tcp://, an address of this host, : and a port, or ipc:// and the path of a local socket");
    return false;
}

// --- ports that two want

static std::vector<listener> find_listeners(inspection& at)
{
    static constexpr std::array<std::array<std::string_view, 2>, 3> doors{
        {{"ports/terminal", "ports/terminal_address"},
         {"ports/win", "ports/win_address"},
         {"http/port", "http/address"}}};
    std::vector<listener> listeners;
    for (const auto& [port, address] : doors)
        if (has_item(at, port) && at.effective.at(port).is_taken() && at.effective.number(port) != 0)
            listeners.push_back({port, at.effective.text(address), at.effective.number(port)});
    if (has_item(at, "tap/address") && check_tap(at)) {
        const auto parts = parse_endpoint(at.effective.text("tap/address"));
        listeners.push_back({"tap/address", std::string{parts->host}, *parts->port});
    }
    return listeners;
}

static bool do_overlap(const listener& one, const listener& other)
{
    return one.port == other.port &&
           (one.address == other.address || is_every_address(one.address) || is_every_address(other.address));
}

static void check_listeners(inspection& at, const std::vector<listener>& listeners)
{
    for (size_t i = 0; i < listeners.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (do_overlap(listeners[i], listeners[j]))
                at.add(severity::ends, "clash", listeners[i].key,
                       fmt::format("port {} is {}'s as well: the second to be opened finds it in use",
                                   listeners[i].port, listeners[j].key),
                       "give each its own port");
}

static bool is_here(std::string_view host)
{
    return is_ipv4(host) && (host.starts_with("127.") || host == "0.0.0.0");
}

static bool is_own(const server& one, const listener& door)
{
    const std::string_view host = one.host == "localhost" ? "127.0.0.1" : std::string_view{one.host};
    return one.port == door.port &&
           (host == door.address || (is_every_address(door.address) && is_here(host)));
}

static void check_servers(inspection& at, const std::vector<server>& servers,
                          const std::vector<listener>& listeners)
{
    for (size_t i = 0; i < servers.size(); ++i) {
        if (servers[i].port == 0)
            continue;
        for (size_t j = 0; j < i; ++j)
            if (servers[i].port == servers[j].port && servers[i].host == servers[j].host)
                at.add(severity::harm, "clash", servers[i].key,
                       fmt::format("it is the same port of {} as {}: one of the two servers is not there",
                                   servers[i].host, servers[j].key),
                       "give each its own port");
        for (const listener& door : listeners)
            if (is_own(servers[i], door))
                at.add(
                    severity::harm, "clash", servers[i].key,
                    fmt::format("port {} of this host is the daemon's own, by {}: it would connect to itself",
                                door.port, door.key),
                    "give each its own port");
    }
}

void check_links(inspection& at)
{
    const std::vector<server> servers = find_servers(at);
    if (at.options.machine)
        check_resolution(at, servers);
    const std::vector<listener> listeners = find_listeners(at);
    check_listeners(at, listeners);
    check_servers(at, servers, listeners);
}

} // namespace rtls::check
