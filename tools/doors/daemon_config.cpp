#include "doors/daemon_config.h"

#include "doors/failure.h"
#include "doors/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <istream>
#include <map>
#include <string_view>

namespace ctl {

// What stands behind "key =", without a comment and without quotes.
static std::string value_of(std::string_view text)
{
    std::string value = trimmed(text);
    if (value.starts_with('"'))
        return value.substr(1, value.find('"', 1) - 1);
    return trimmed(value.substr(0, value.find('#')));
}

// Its keys with their paths, as in "http/port". Only two levels matter here.
static std::map<std::string, std::string> read_keys(std::istream& in)
{
    std::map<std::string, std::string> keys;
    std::string section;
    std::string line;
    while (std::getline(in, line)) {
        const size_t indent = std::min(line.find_first_not_of(' '), line.size());
        const std::string text = trimmed(line);
        if (text.empty() || text[0] == '#')
            continue;
        const size_t sign = text.find('=');
        if (indent == 0)
            section = sign == std::string::npos ? text : "";
        else if (indent == 4 && sign != std::string::npos)
            keys[section + "/" + trimmed(text.substr(0, sign))] = value_of(text.substr(sign + 1));
    }
    return keys;
}

// Where this host reaches a port that is bound to `address`.
static std::string reachable(const std::string& address)
{
    return address.empty() || address == "*" ? "127.0.0.1" : address;
}

// As the daemon reads it: decimal, 0x hexadecimal, octal with a 0 in front.
static uint16_t port_number(const std::string& text, const char* key)
{
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || value == 0 || value > UINT16_MAX)
        throw failure(exit_status::usage, fmt::format("the gateway's configuration has no port \"{}\"", key));
    return static_cast<uint16_t>(value);
}

gateway_address read_daemon_config(std::istream& in)
{
    auto keys = read_keys(in);
    gateway_address gateway;
    gateway.terminal = endpoint{reachable(keys["ports/terminal_address"]),
                                port_number(keys["ports/terminal"], "ports/terminal")};
    if (keys.contains("http/port"))
        gateway.http = "http://" + to_text({reachable(keys["http/address"]),
                                            port_number(keys["http/port"], "http/port")});
    gateway.token_file = keys["http/token"];
    return gateway;
}

gateway_address gateway_by_config(const std::string& name)
{
    std::ifstream in{name};
    if (!in)
        throw failure(exit_status::usage, fmt::format("cannot read {}: {}", name, std::strerror(errno)));
    gateway_address gateway = read_daemon_config(in);
    gateway.name = to_text(*gateway.terminal);
    return gateway;
}

} // namespace ctl
