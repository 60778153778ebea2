#include "http/node_query.h"

#include "base/peer.h"
#include "http/time_text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

namespace rtls {

static constexpr size_t most_on_a_page = 1000;
static constexpr const char* status_names[] = {"connected", "floating", "expired"};

node_status status_of(const node_row& node)
{
    if (node.lifetime == 0)
        return node_status::expired;
    return node.bridge == no_bridge ? node_status::floating : node_status::connected;
}

const char* status_name(node_status status)
{
    return status_names[static_cast<size_t>(status)];
}

const char* role_name(uint8_t type)
{
    static constexpr const char* names[] = {"undefined", "fixed",       "mobile", "configuration pending",
                                            "bridge",    "tdoa mobile", "sensor"};
    const size_t role = type & 0x0F;
    return role < std::size(names) ? names[role] : "unknown";
}

// --- the parameters

static int digit_of(char c)
{
    const auto* digits = "0123456789abcdef";
    const char* found = strchr(digits, std::tolower(static_cast<unsigned char>(c)));
    return c != '\0' && found ? static_cast<int>(found - digits) : -1;
}

std::optional<mac_array> parse_mac(std::string_view text)
{
    mac_array mac{};
    size_t digits = 0;
    for (const char c : text) {
        if (c == ':')
            continue;
        const int digit = digit_of(c);
        if (digit < 0 || digits == 2 * mac_size)
            return std::nullopt;
        mac[digits / 2] = static_cast<uint8_t>(mac[digits / 2] << 4 | digit);
        ++digits;
    }
    return digits == 2 * mac_size ? std::optional{mac} : std::nullopt;
}

static std::string lower_case(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

static bool read_status(const std::string& text, node_query& query)
{
    const auto found = std::ranges::find(status_names, text);
    if (found == std::end(status_names))
        return false;
    query.status = static_cast<node_status>(found - std::begin(status_names));
    return true;
}

static bool read_limit(const std::string& text, node_query& query)
{
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, query.limit);
    return error == std::errc{} && rest == end && query.limit >= 1 && query.limit <= most_on_a_page;
}

static bool read_mac(const std::string& text, std::optional<mac_array>& mac)
{
    mac = parse_mac(text);
    return mac.has_value();
}

namespace {

struct parameter_row {
    const char* name;
    bool (*read)(const std::string& text, node_query& query);
    const char* expected;
};

} // namespace

static constexpr parameter_row parameter_rows[] = {
    {"bridge", [](const std::string& text, node_query& query) { return read_mac(text, query.bridge); },
     "a MAC of 16 hex digits"},
    {"state", read_status, "connected, floating or expired"},
    {"text",
     [](const std::string& text, node_query& query) {
         query.text = lower_case(text);
         return true;
     },
     "a text"},
    {"limit", read_limit, "a number from 1 to 1000"},
    {"after", [](const std::string& text, node_query& query) { return read_mac(text, query.after); },
     "a MAC of 16 hex digits"},
};

std::optional<node_query> node_query::read(const std::multimap<std::string, std::string>& parameters,
                                           std::string& fault)
{
    node_query query;
    for (const auto& [name, text] : parameters) {
        const auto row = std::ranges::find(parameter_rows, name, &parameter_row::name);
        if (row == std::end(parameter_rows)) {
            fault = "there is no parameter \"" + name + "\"";
            return std::nullopt;
        }
        if (!row->read(text, query)) {
            fault = '"' + name + "\" must be " + row->expected;
            return std::nullopt;
        }
    }
    return query;
}

// --- one node

static std::string address_text(const node_row& node)
{
    return ipv6_text{node.ip_addr}.c_str();
}

static std::string mac_text(const uint8_t* mac)
{
    return colon_mac_text{mac}.c_str();
}

static bool contains(const node_row& node, std::string_view text)
{
    std::string mac = mac_text(node.mac_addr);
    if (mac.find(text) != std::string::npos)
        return true;
    std::erase(mac, ':');
    return mac.find(text) != std::string::npos ||
           std::string_view{role_name(node.type)}.find(text) != std::string_view::npos ||
           address_text(node).find(text) != std::string::npos;
}

bool node_query::matches(const node_row& node, std::span<const win_client_info> bridges) const
{
    if (status && status_of(node) != *status)
        return false;
    if (bridge && (node.bridge == no_bridge ||
                   std::memcmp(bridges[node.bridge].mac_addr, bridge->data(), mac_size) != 0))
        return false;
    return text.empty() || contains(node, text);
}

static json mac_or_null(const uint8_t* mac)
{
    return std::all_of(mac, mac + mac_size, [](uint8_t byte) { return byte == 0; }) ? json(nullptr)
                                                                                    : json(mac_text(mac));
}

static json activity_json(const timeval& time)
{
    if (time.tv_sec == 0)
        return nullptr;
    return utc_text(int64_t{time.tv_sec} * 1000 + time.tv_usec / 1000);
}

static std::string version_text(uint32_t version)
{
    char text[9];
    (void)snprintf(text, sizeof text, "%08x", version);
    return text;
}

json node_json(const node_row& node, std::span<const win_client_info> bridges)
{
    json out;
    out["mac"] = mac_text(node.mac_addr);
    out["role"] = role_name(node.type);
    out["status"] = status_name(status_of(node));
    out["bridge"] = node.bridge == no_bridge ? json(nullptr) : mac_or_null(bridges[node.bridge].mac_addr);
    out["parent"] = mac_or_null(node.parent_addr);
    out["address"] = address_text(node);
    out["address_is_forwarded"] = node.forwarded_ip;
    out["is_direct"] = node.direct_mask;
    out["lifetime_s"] = node.lifetime;
    out["last_activity"] = activity_json(node.last_activity);
    out["software"] = version_text(node.sw_version);
    out["state"] = node.state;
    out["ranging_frequency"] = node.ranging_freq;
    out["sublocation"] = node.sublocation_id;
    out["x"] = node.pos_X;
    out["y"] = node.pos_Y;
    out["z"] = node.z_val;
    out["z_offset"] = node.z_offset * 10; // as the listings show it
    return out;
}

// --- the page

static bool comes_before(const node_row& one, const node_row& other)
{
    return std::memcmp(one.mac_addr, other.mac_addr, mac_size) < 0;
}

void nodes_page::take(const node_row& row)
{
    if (!m_query.matches(row, m_bridges))
        return;
    ++m_matching;
    if (m_query.after && std::memcmp(row.mac_addr, m_query.after->data(), mac_size) <= 0)
        return;
    ++m_behind;
    m_rows.push_back(row);
    std::ranges::push_heap(m_rows, comes_before);
    if (m_rows.size() <= m_query.limit)
        return;
    std::ranges::pop_heap(m_rows, comes_before);
    m_rows.pop_back();
}

void nodes_page::take(std::span<const node_row> rows)
{
    for (const node_row& row : rows)
        take(row);
}

void nodes_page::begin_anew()
{
    m_rows.clear();
    m_matching = 0;
    m_behind = 0;
}

json nodes_page::as_json()
{
    std::ranges::sort_heap(m_rows, comes_before);
    json nodes = json::array();
    for (const node_row& row : m_rows)
        nodes.push_back(node_json(row, m_bridges));
    json next = nullptr;
    if (m_behind > m_rows.size())
        next = mac_text(m_rows.back().mac_addr);
    json out;
    out["matching"] = m_matching;
    out["nodes"] = std::move(nodes);
    out["next"] = std::move(next);
    return out;
}

} // namespace rtls
