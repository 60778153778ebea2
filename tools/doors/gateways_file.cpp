#include "doors/gateways_file.h"

#include "doors/daemon_config.h"
#include "doors/failure.h"
#include "doors/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <istream>
#include <string_view>

namespace ctl {

// --- Addresses

template <typename Number>
static std::optional<Number> whole_number(std::string_view text)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<endpoint> parse_endpoint(const std::string& text, uint16_t usual_port)
{
    const bool has_brackets = text.starts_with('[');
    const size_t host_end = has_brackets ? text.find(']') : text.find(':');
    if (has_brackets && host_end == std::string::npos)
        return std::nullopt;
    endpoint where{text.substr(has_brackets ? 1 : 0, host_end - (has_brackets ? 1 : 0)), usual_port};
    const std::string rest = host_end == std::string::npos ? "" : text.substr(host_end + has_brackets);
    if (where.host.empty() || where.host.find_first_of(" \t/") != std::string::npos)
        return std::nullopt;
    if (rest.empty())
        return where;
    const auto port = rest[0] == ':' ? whole_number<uint16_t>(rest.substr(1)) : std::nullopt;
    if (!port || *port == 0)
        return std::nullopt;
    where.port = *port;
    return where;
}

std::string to_text(const endpoint& where)
{
    const bool is_ipv6 = where.host.find(':') != std::string::npos;
    return fmt::format("{}:{}", is_ipv6 ? "[" + where.host + "]" : where.host, where.port);
}

std::string http_base(const std::string& text)
{
    const size_t scheme_end = text.find("://");
    const std::string scheme = scheme_end == std::string::npos ? "http" : text.substr(0, scheme_end);
    std::string rest = scheme_end == std::string::npos ? text : text.substr(scheme_end + 3);
    if (rest.ends_with('/'))
        rest.pop_back();
    const bool is_https = scheme == "https";
    const auto where = parse_endpoint(rest, is_https ? uint16_t{443} : usual_http_port);
    if (!where || (!is_https && scheme != "http"))
        throw failure(exit_status::usage, fmt::format("\"{}\" is no address of an HTTP port", text));
    return scheme + "://" + to_text(*where);
}

static endpoint terminal_endpoint(const std::string& text)
{
    const auto where = parse_endpoint(text, usual_terminal_port);
    if (!where)
        throw failure(exit_status::usage, fmt::format("\"{}\" is no address: HOST or HOST:PORT", text));
    return *where;
}

// --- The file

const gateway_address* gateways_file::find(const std::string& gateway) const
{
    const auto found = std::ranges::find(gateways, gateway, &gateway_address::name);
    return found == gateways.end() ? nullptr : &*found;
}

static void set_common(gateways_file& file, const std::string& key, const std::string& value)
{
    if (key == "gateways") {
        file.usual = words_of(value);
    } else if (key == "timeout") {
        file.timeout = whole_number<double>(value);
        if (!file.timeout || !(*file.timeout > 0))
            throw failure(exit_status::usage, "a timeout is a number of seconds above 0");
    } else {
        throw failure(exit_status::usage,
                      fmt::format("there is no key \"{}\" outside of a gateway's section", key));
    }
}

static void set_by_config(gateway_address& gateway, const std::string& name)
{
    const std::string called = gateway.name;
    gateway = gateway_by_config(name);
    gateway.name = called;
}

static void set_of_gateway(gateway_address& gateway, const std::string& key, const std::string& value)
{
    if (key == "terminal")
        gateway.terminal = terminal_endpoint(value);
    else if (key == "http")
        gateway.http = http_base(value);
    else if (key == "token")
        gateway.token_file = value;
    else if (key == "config")
        set_by_config(gateway, value);
    else
        throw failure(exit_status::usage,
                      fmt::format("a gateway has no key \"{}\": terminal, http, token, config", key));
}

static void begin_section(gateways_file& file, const std::string& line)
{
    const std::string name = line.ends_with(']') ? trimmed(line.substr(1, line.size() - 2)) : "";
    if (words_of(name) != std::vector{name})
        throw failure(exit_status::usage, "a section is one word in brackets");
    if (file.find(name) != nullptr)
        throw failure(exit_status::usage, fmt::format("there are two gateways \"{}\"", name));
    gateway_address gateway;
    gateway.name = name;
    file.gateways.push_back(gateway);
}

static void read_line(gateways_file& file, const std::string& line)
{
    if (line.empty() || line[0] == '#' || line[0] == ';')
        return;
    if (line[0] == '[')
        return begin_section(file, line);
    const size_t sign = line.find('=');
    if (sign == std::string::npos)
        throw failure(exit_status::usage, "a line is \"key = value\", or a gateway's name in brackets");
    const std::string key = trimmed(line.substr(0, sign));
    const std::string value = trimmed(line.substr(sign + 1));
    if (file.gateways.empty())
        set_common(file, key, value);
    else
        set_of_gateway(file.gateways.back(), key, value);
}

static void check(const gateways_file& file)
{
    for (const gateway_address& gateway : file.gateways)
        if (!gateway.terminal && gateway.http.empty())
            throw failure(
                exit_status::usage,
                fmt::format("{}: the gateway \"{}\" has neither terminal nor http", file.name, gateway.name));
    for (const std::string& name : file.usual)
        if (file.find(name) == nullptr)
            throw failure(exit_status::usage,
                          fmt::format("{}: \"gateways\" names {}, which has no section", file.name, name));
}

gateways_file read_gateways(std::istream& in, const std::string& name)
{
    gateways_file file;
    file.name = name;
    std::string line;
    for (unsigned number = 1; std::getline(in, line); ++number)
        try {
            read_line(file, trimmed(line));
        } catch (const failure& why) {
            throw failure(exit_status::usage, fmt::format("{}:{}: {}", name, number, why.what()));
        }
    check(file);
    return file;
}

static gateways_file open_gateways(const std::string& name, bool must_be_there)
{
    errno = 0;
    std::ifstream in{name};
    if (!in && (must_be_there || errno != ENOENT))
        throw failure(exit_status::usage, fmt::format("cannot read {}: {}", name, std::strerror(errno)));
    return in ? read_gateways(in, name) : gateways_file{};
}

static std::string variable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

static std::string file_of_user()
{
    const std::string folder = variable("XDG_CONFIG_HOME");
    if (!folder.empty())
        return folder + "/rtls-ctl.conf";
    const std::string home = variable("HOME");
    return home.empty() ? "" : home + "/.config/rtls-ctl.conf";
}

gateways_file load_gateways(const std::string& given)
{
    const std::string wanted = given.empty() ? variable("RTLS_CTL_CONFIG") : given;
    if (!wanted.empty())
        return open_gateways(wanted, true);
    for (const std::string& name : {file_of_user(), std::string{"/etc/rtls-gateway/rtls-ctl.conf"}})
        if (gateways_file file = name.empty() ? gateways_file{} : open_gateways(name, false);
            !file.name.empty())
            return file;
    return {};
}

gateway_address gateway_by_word(const gateways_file& file, const std::string& word)
{
    if (const gateway_address* found = file.find(word))
        return *found;
    gateway_address gateway;
    gateway.name = word;
    gateway.terminal = terminal_endpoint(word);
    return gateway;
}

std::vector<gateway_address> usual_gateways(const gateways_file& file)
{
    std::vector<gateway_address> gateways;
    for (const std::string& name : file.usual)
        gateways.push_back(*file.find(name));
    if (!gateways.empty())
        return gateways;
    if (file.gateways.size() > 1)
        throw failure(
            exit_status::usage,
            fmt::format("{} has several gateways: say which, as in -g {},{}, or \"gateways = ...\" in it",
                        file.name, file.gateways[0].name, file.gateways[1].name));
    if (file.gateways.size() == 1)
        return file.gateways;
    if (std::ifstream{daemon_config_file})
        return {gateway_by_config(daemon_config_file)};
    return {gateway_by_word(file, "127.0.0.1")};
}

} // namespace ctl
