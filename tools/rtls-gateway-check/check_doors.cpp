// The doors: where they are opened, and to whom.
#include "base/czmq_ptr.h"
#include "http/http_rules.h"
#include "rtls-gateway-check/check.h"
#include "rtls-gateway-check/endpoint.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <array>

namespace rtls::check {

static void check_own_address(inspection& at, std::string_view key)
{
    const effective_key& one = at.effective.at(key);
    in_addr address{};
    if (!at.options.machine || !one.is_taken() || is_every_address(one.reading.value) ||
        inet_pton(AF_INET, one.reading.value.c_str(), &address) != 1 ||
        at.options.machine->has_address(address))
        return;
    at.add(severity::ends, "address", key,
           fmt::format("{} is no address of this host: the port cannot be opened", one.reading.value),
           "write an address that one of its interfaces has, or * for all of them");
}

static void check_terminal_door(inspection& at)
{
    if (at.effective.at("ports/terminal").item &&
        is_every_address(at.effective.text("ports/terminal_address")) &&
        !at.effective.at("ports/terminal_networks").item)
        at.add(severity::warning, "open", "ports/terminal",
               "everybody who reaches this host can reboot nodes and load firmware: there is no password",
               "write \"terminal_address = 127.0.0.1\", or terminal_networks, below \"ports\"");
}

static void check_win_door(inspection& at)
{
    if (at.effective.at("ports/win").item && is_every_address(at.effective.text("ports/win_address")) &&
        !at.effective.at("ports/win_networks").item)
        at.add(severity::warning, "open", "ports/win",
               "everybody who reaches this host can pose as a bridge: the port is open at all its addresses",
               "write win_address, or win_networks, below \"ports\"");
}

static void check_http_door(inspection& at)
{
    const std::string& address = at.effective.text("http/address");
    if (at.effective.at("http/port").item && !at.effective.at("http/token").item && !address.empty() &&
        !address.starts_with("127."))
        at.add(severity::warning, "open", "http/address",
               "everybody who reaches this address can see all nodes: no token is asked for",
               "name a token's file by http/token, or leave the address away: it is 127.0.0.1 then");
}

// By the daemon's own function.
static bool is_token(const std::string& name)
{
    const zconfig_ptr tree{zconfig_new("root", nullptr)};
    zconfig_put(tree.get(), "http/port", "1");
    zconfig_put(tree.get(), "http/token", name.c_str());
    std::optional<http_rules> rules;
    return read_http_rules(tree.get(), rules);
}

static void check_token(inspection& at)
{
    static constexpr std::string_view key = "http/token";
    if (!at.options.machine || !at.effective.at(key).item)
        return;
    const std::string& name = at.effective.text(key);
    if (!is_token(name))
        at.add(severity::refused, "token", key,
               fmt::format("\"{}\" is no file with one word of visible characters, or cannot be read", name),
               "put the token there, and nothing else, readable for the daemon's user");
    else if (at.options.machine->look_at(name).is_for_all_to_read)
        at.add(severity::warning, "secret", key,
               fmt::format("everybody on this host can read the token in \"{}\"", name),
               fmt::format("chmod o-r {}", name));
}

static void check_http_is_built(inspection& at)
{
#ifndef RTLS_CHECK_HTTP
    if (at.effective.at("http/port").item)
        at.add(severity::ends, "http", "http/port", "this daemon is built without its HTTP port",
               "take the section out, or build the daemon with RTLS_HTTP=ON");
#else
    (void)at;
#endif
}

void check_doors(inspection& at)
{
    static constexpr std::array<std::string_view, 4> addresses{"ports/terminal_address", "ports/win_address",
                                                               "ports/discovery_address", "http/address"};
    for (const std::string_view key : addresses)
        if (at.effective.at(key).item)
            check_own_address(at, key);
    check_terminal_door(at);
    check_win_door(at);
    check_http_door(at);
    check_token(at);
    check_http_is_built(at);
}

} // namespace rtls::check
