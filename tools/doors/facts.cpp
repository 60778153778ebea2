#include "doors/facts.h"

#include "common/texts.h"
#include "doors/failure.h"
#include "doors/macs.h"
#include "doors/terminal_texts.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>

namespace ctl {

// --- Nodes

static std::string lower(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

static bool has_text(const json& node, const std::string& text)
{
    const auto mac = node.at("mac").get<std::string>();
    std::string digits = mac;
    std::erase(digits, ':');
    const std::string wanted = lower(text);
    const auto has = [&](const std::string& value) { return lower(value).find(wanted) != std::string::npos; };
    return has(mac) || has(digits) || has(node.at("role").get<std::string>()) ||
           has(node.at("address").get<std::string>());
}

static bool is_of_bridge(const json& node, const std::string& digits)
{
    return node.at("bridge").is_string() && ends_with(json{{"mac", node.at("bridge")}}, digits);
}

static bool is_meant(const json& node, const node_filter& filter)
{
    return (filter.state.empty() || node.at("status") == filter.state) &&
           (filter.role.empty() || node.at("role") == filter.role) &&
           (filter.bridge.empty() || is_of_bridge(node, filter.bridge)) &&
           (filter.text.empty() || has_text(node, filter.text));
}

// Page after page. The port filters by what it knows, so that little comes over the line.
static json nodes_by_http(http_session& http, const node_filter& filter)
{
    json nodes = json::array();
    for (json next = ""; next.is_string();) {
        json page = http.page("/api/v1/nodes?" + query_text({{"state", filter.state},
                                                             {"text", filter.text},
                                                             {"limit", "1000"},
                                                             {"after", next.get<std::string>()}}));
        for (json& node : page.at("nodes"))
            nodes.push_back(std::move(node));
        next = page.at("next");
    }
    return nodes;
}

static json network_by_terminal(gateway& g)
{
    return parse_network(g.terminal().ask("pnf", end_of_listing));
}

static json nodes_by_terminal(gateway& g)
{
    json nodes = std::move(network_by_terminal(g)["nodes"]);
    std::sort(nodes.begin(), nodes.end(),
              [](const json& one, const json& other) { return one.at("mac") < other.at("mac"); });
    return nodes;
}

json nodes_of(gateway& g, const node_filter& filter)
{
    http_session* const http = g.http();
    json all = http != nullptr ? nodes_by_http(*http, filter) : nodes_by_terminal(g);
    json nodes = json::array();
    for (json& node : all)
        if (is_meant(node, filter))
            nodes.push_back(std::move(node));
    return nodes;
}

json nodes_with_mac(gateway& g, const std::string& digits)
{
    node_filter filter;
    filter.text = digits; // the port looks anywhere in it
    json nodes = json::array();
    for (json& node : nodes_of(g, filter))
        if (ends_with(node, digits))
            nodes.push_back(std::move(node));
    return nodes;
}

static std::string macs_of(const json& nodes)
{
    std::string text;
    for (const json& node : nodes)
        text += (text.empty() ? "" : ", ") + tools::printable(node.at("mac").get<std::string>());
    return text;
}

json node_with_mac(gateway& g, const std::string& digits)
{
    json nodes = nodes_with_mac(g, digits);
    if (nodes.empty())
        throw failure(exit_status::refused, fmt::format("no node has the MAC {}", digits));
    if (nodes.size() > 1)
        throw failure(exit_status::refused, fmt::format("{} nodes have a MAC that ends with {}: {}",
                                                        nodes.size(), digits, macs_of(nodes)));
    return std::move(nodes[0]);
}

// --- The others

json bridges_of(gateway& g)
{
    if (http_session* const http = g.http())
        return http->page("/api/v1/bridges");
    return {{"bridges", std::move(network_by_terminal(g)["bridges"])}};
}

json operators_of(gateway& g)
{
    if (http_session* const http = g.http())
        return http->page("/api/v1/operators");
    return {{"operators", parse_operators(g.terminal().ask("pcl", end_of_listing))}};
}

// The table of images has no end of its own. Its title tells that the command has been taken, so that the next
// one is a packet of its own.
static json images_by_terminal(terminal_session& terminal)
{
    std::string listing = terminal.ask("fw list", end_of_line);
    const std::string rest = terminal.ask(marking_command, end_of_filter_answer);
    return parse_images(listing + rest.substr(0, rest.rfind("GREP: ")));
}

json firmware_of(gateway& g)
{
    if (http_session* const http = g.http())
        return http->page("/api/v1/firmware");
    return {{"slots", nullptr}, {"images", images_by_terminal(g.terminal())}, {"announced", nullptr}};
}

json health_of(gateway& g)
{
    http_session* const http = g.http();
    if (http == nullptr)
        return {{"version", parse_version(g.terminal().ask("info", end_of_versions))},
                {"live", true},
                {"ready", nullptr},
                {"checks", json::array()}};
    const json live = http->verdict("/livez?verbose");
    const json ready = http->verdict("/readyz?verbose");
    json checks = live.at("checks");
    for (const json& check : ready.at("checks"))
        checks.push_back(check);
    return {{"version", http->page("/version").at("version")},
            {"live", live.at("status") == "ok"},
            {"ready", ready.at("status") == "ok"},
            {"checks", std::move(checks)}};
}

} // namespace ctl
