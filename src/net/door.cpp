#include "net/door.h"

#include "base/logger.h"
#include "base/peer.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace rtls {

static constexpr const char* refusal_texts[door_refusals] = {
    "it is in none of the networks that may connect",
    "all connections are taken",
    "it has as many as one address may have",
};

std::optional<door_refusal> door::judge(in_addr address, size_t present, size_t of_address) const noexcept
{
    if (rules.networks && !rules.networks->contains(address))
        return door_refusal::network;
    if (rules.most != 0 && present >= rules.most)
        return door_refusal::full;
    if (rules.most_of_one_address != 0 && of_address >= rules.most_of_one_address)
        return door_refusal::address;
    return std::nullopt;
}

bool door::admits(in_addr address, size_t present, size_t of_address, int64_t now_ms) noexcept
{
    const auto refusal = judge(address, present, of_address);
    if (!refusal)
        return true;
    const auto which = static_cast<size_t>(*refusal);
    refusals& of_kind = m_refusals[which];
    of_kind.count.store(of_kind.count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (of_kind.episode.begins(now_ms))
        logger_warning(g_logger, "%s port: %s is refused, %s", m_name, ipv4_text{address}.c_str(),
                       refusal_texts[which]);
    return false;
}

// --- the rules

// An optional key, read without config_value_get so that its absence logs nothing.
static const char* optional_text(zconfig_t* config, const char* name, const char* what)
{
    return zconfig_get(config, ("ports/" + std::string{name} + what).c_str(), nullptr);
}

static bool refuse(const char* name, const char* what, const char* expected)
{
    logger_error(g_logger, "The parameter \"ports/%s%s\" is no %s!", name, what, expected);
    return false;
}

bool read_door_address(zconfig_t* config, const char* name, std::string& address)
{
    static constexpr char what[] = "_address";
    const char* text = optional_text(config, name, what);
    if (!text)
        return true;
    in_addr parsed{};
    if (strcmp(text, "*") != 0 && inet_pton(AF_INET, text, &parsed) != 1)
        return refuse(name, what, "IPv4 address");
    address = text;
    return true;
}

static bool read_bound(zconfig_t* config, const char* name, const char* what, size_t& bound)
{
    const char* text = optional_text(config, name, what);
    if (!text)
        return true;
    char* end = nullptr;
    errno = 0;
    const long number = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || number <= 0)
        return refuse(name, what, "positive number");
    bound = static_cast<size_t>(number);
    return true;
}

static bool read_list(zconfig_t* config, const char* name, const char* what,
                      std::optional<prefix_list> (*parse)(std::string_view), const char* expected,
                      std::optional<prefix_list>& list)
{
    const char* text = optional_text(config, name, what);
    if (!text)
        return true;
    list = parse(text);
    return list || refuse(name, what, expected);
}

bool read_mac_list(zconfig_t* config, const char* name, std::optional<prefix_list>& macs)
{
    return read_list(config, name, "_macs", parse_macs, "list of MACs", macs);
}

bool read_door_rules(zconfig_t* config, const char* name, door_rules& rules)
{
    return read_door_address(config, name, rules.address) &&
           read_bound(config, name, "_connections", rules.most) &&
           read_bound(config, name, "_connections_per_address", rules.most_of_one_address) &&
           read_list(config, name, "_networks", parse_networks, "list of IPv4 networks", rules.networks);
}

} // namespace rtls
