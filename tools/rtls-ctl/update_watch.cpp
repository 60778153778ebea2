#include "rtls-ctl/update_watch.h"

#include "doors/macs.h"
#include "rtls-ctl/screen.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace ctl {

update_watch::update_watch(std::string version, std::vector<std::string> macs)
    : m_version(std::move(version)), m_macs(std::move(macs))
{
}

// Whoever had expired before is not waited for, unless he was asked for.
bool update_watch::is_watched(const json& it) const
{
    if (m_macs.empty())
        return it.at("status") != "expired" || m_nodes.contains(it.at("mac").get<std::string>());
    return std::ranges::any_of(m_macs, [&](const std::string& digits) { return ends_with(it, digits); });
}

void update_watch::look(const json& nodes)
{
    for (auto& [mac, known] : m_nodes)
        known.status = "gone";
    for (const json& it : nodes)
        if (is_watched(it))
            m_nodes[printable(it.at("mac").get<std::string>())] = {
                printable(it.at("software").get<std::string>()), it.at("status").get<std::string>()};
}

// Digits of nodes that were asked for, and that nobody has heard of.
std::vector<std::string> update_watch::unheard() const
{
    std::vector<std::string> digits = m_macs;
    std::erase_if(digits, [&](const std::string& wanted) {
        return std::ranges::any_of(m_nodes, [&](const auto& it) {
            return ends_with({{"mac", it.first}}, wanted);
        });
    });
    return digits;
}

size_t update_watch::total() const
{
    return m_nodes.size() + unheard().size();
}

size_t update_watch::done() const
{
    return static_cast<size_t>(
        std::ranges::count_if(m_nodes, [&](const auto& it) { return it.second.software == m_version; }));
}

json update_watch::missing() const
{
    json nodes = json::array();
    for (const auto& [mac, it] : m_nodes)
        if (it.software != m_version)
            nodes.push_back({{"mac", mac}, {"software", it.software}, {"status", it.status}});
    for (const std::string& digits : unheard())
        nodes.push_back({{"mac", digits}, {"software", nullptr}, {"status", "never heard"}});
    return nodes;
}

std::string progress_line(size_t done, size_t total, const std::string& version, unsigned passed_s,
                          size_t width)
{
    constexpr size_t widest_bar = 40;
    const std::string text = fmt::format("{} of {} nodes run {}, {} s", done, total, version, passed_s);
    const size_t room = width > text.size() + 3 ? std::min(width - text.size() - 3, widest_bar) : 0;
    if (room < 5)
        return width > 0 ? text.substr(0, width) : text;
    const size_t full = total > 0 ? room * done / total : 0;
    return fmt::format("[{}{}] {}", std::string(full, '#'), std::string(room - full, '.'), text);
}

} // namespace ctl
