#include "rtls-gateway-check/endpoint.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <string>

namespace rtls::check {

static bool is_letter_or_digit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

static bool may_follow(char c)
{
    return is_letter_or_digit(c) ||
           (c != '\0' && std::string_view{".-:%;[]_*"}.find(c) != std::string_view::npos);
}

bool is_connectable(std::string_view host) noexcept
{
    if (host.empty())
        return true; // for the library; nobody is reached
    const char first = host.front();
    return (is_letter_or_digit(first) || first == '[' || first == ':') &&
           std::ranges::all_of(host.substr(1), may_follow);
}

bool is_ipv4(std::string_view host)
{
    in_addr parsed{};
    return inet_pton(AF_INET, std::string{host}.c_str(), &parsed) == 1;
}

bool is_every_address(std::string_view address) noexcept
{
    return address == "*" || address == "0.0.0.0";
}

static std::optional<uint16_t> parse_port(std::string_view text)
{
    uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc{} || last != end || port == 0)
        return std::nullopt;
    return port;
}

std::optional<endpoint_parts> parse_endpoint(std::string_view text)
{
    static constexpr std::string_view between = "://";
    const size_t at = text.find(between);
    if (at == std::string_view::npos || at == 0 || at + between.size() == text.size())
        return std::nullopt;
    endpoint_parts parts{text.substr(0, at), text.substr(at + between.size()), std::nullopt};
    if (parts.transport != "tcp")
        return parts;
    const size_t colon = parts.host.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    parts.port = parse_port(parts.host.substr(colon + 1));
    parts.host = parts.host.substr(0, colon);
    return parts;
}

} // namespace rtls::check
