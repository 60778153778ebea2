#include "rtls-sim/tracker.h"

#include <fmt/format.h>

namespace sim {

// How far the gateway's clock may stand from ours where it stamps a report itself.
static constexpr int64_t clock_tolerance_ms = 2000;

static int64_t in_milliseconds(const report_time& time)
{
    return int64_t{time.seconds} * 1000 + time.milliseconds;
}

void tracker::sent(sent_report report)
{
    const std::scoped_lock lock{m_mutex};
    ++m_tally.by_kind[static_cast<size_t>(report.kind)].sent;
    if (!report.optional && report.to != outlet::none)
        ++m_tally.sent;
    if (m_count_only || report.to == outlet::none)
        return;
    std::string content = report.content;
    m_under_way.emplace(std::move(content), entry{std::move(report), steady::now(), realtime_ns()});
}

void tracker::sent_ping()
{
    const std::scoped_lock lock{m_mutex};
    ++m_tally.by_kind[static_cast<size_t>(kind::ping)].sent;
    ++m_tally.pings;
}

void tracker::wanted_ack()
{
    const std::scoped_lock lock{m_mutex};
    ++m_tally.acks_wanted;
}

void tracker::stalled(uint64_t reports)
{
    const std::scoped_lock lock{m_mutex};
    m_tally.stalled += reports;
}

bool tracker::time_is_right(const entry& sent, const report_time& time) const
{
    if (sent.report.time)
        return in_milliseconds(*sent.report.time) == in_milliseconds(time);
    const int64_t stamped = in_milliseconds(time);
    const auto earliest = static_cast<int64_t>(sent.sent_wall_ns / 1'000'000) - clock_tolerance_ms;
    const auto latest = static_cast<int64_t>(realtime_ns() / 1'000'000) + clock_tolerance_ms;
    return stamped >= earliest && stamped <= latest;
}

tracker::verdict tracker::arrived(outlet where, const upstream_report& report)
{
    const std::scoped_lock lock{m_mutex};
    if (report.kind)
        ++m_tally.by_kind[static_cast<size_t>(*report.kind)].received;
    auto [at, end] = m_under_way.equal_range(report.content);
    while (at != end && at->second.report.to != where)
        ++at;
    if (at == end || !report.valid) {
        if (report.page)
            return verdict::unserved_page; // the gateway has no such image: the servers are asked instead
        ++m_tally.unexpected;
        return verdict::unexpected;
    }
    const entry found = std::move(at->second);
    m_under_way.erase(at);
    if (!found.report.optional)
        ++m_tally.received;
    m_reports.add(steady::now() - found.sent_at);
    if (time_is_right(found, report.time))
        return verdict::expected;
    ++m_tally.wrong_time;
    return verdict::wrong_time;
}

void tracker::echoed(bool expected, std::chrono::nanoseconds round_trip)
{
    const std::scoped_lock lock{m_mutex};
    if (!expected) {
        ++m_tally.echoes_unexpected;
        return;
    }
    ++m_tally.by_kind[static_cast<size_t>(kind::ping)].received;
    ++m_tally.echoes;
    m_pings.add(round_trip);
}

void tracker::acked(bool expected, std::chrono::nanoseconds round_trip)
{
    const std::scoped_lock lock{m_mutex};
    if (!expected) {
        ++m_tally.acks_unexpected;
        return;
    }
    ++m_tally.acks;
    m_acks.add(round_trip);
}

static std::string command_key(const mac_bytes& node, uint16_t type, view payload)
{
    return fmt::format("command {:04X} to {}: {}", type, hex(node), hex(payload));
}

void tracker::wanted_command(const mac_bytes& node, msg type, view payload)
{
    const std::scoped_lock lock{m_mutex};
    ++m_tally.commands_wanted;
    m_commands.emplace(command_key(node, code(type), payload), steady::now());
}

bool tracker::command_arrived(const mac_bytes& node, uint16_t type, view payload)
{
    const std::scoped_lock lock{m_mutex};
    if (m_commands.empty())
        return false;
    const auto found = m_commands.find(command_key(node, type, payload));
    if (found == m_commands.end())
        return false;
    m_command_times.add(steady::now() - found->second);
    m_commands.erase(found);
    ++m_tally.commands;
    return true;
}

void tracker::give_up(std::chrono::seconds age)
{
    const std::scoped_lock lock{m_mutex};
    const auto oldest = steady::now() - age;
    std::erase_if(m_under_way, [&](const auto& item) {
        if (item.second.sent_at >= oldest)
            return false;
        if (!item.second.report.optional)
            ++m_tally.lost;
        return true;
    });
}

tally tracker::counts() const
{
    const std::scoped_lock lock{m_mutex};
    tally now = m_tally;
    now.in_flight = m_count_only ? 0 : now.sent - now.received - now.lost;
    return now;
}

std::vector<std::string> tracker::missing(size_t limit) const
{
    const std::scoped_lock lock{m_mutex};
    std::vector<std::string> lines;
    for (const auto& [content, item] : m_under_way) {
        if (item.report.optional)
            continue;
        if (lines.size() == limit)
            break;
        const auto& report = item.report;
        const std::string shown =
            report.to == outlet::handler
                ? hex(view{reinterpret_cast<const uint8_t*>(content.data()), content.size()})
                : content;
        lines.push_back(fmt::format("missing: {} from {} seq {}: {}", kind_name(report.kind),
                                    short_mac(report.from), report.seq, shown));
    }
    for (const auto& [key, sent_at] : m_commands)
        if (lines.size() < limit)
            lines.push_back("missing: " + key);
    return lines;
}

// What the gateway answers itself has nobody to receive it: none received is no loss.
static std::string received_text(kind k, const kind_counts& counts)
{
    const bool is_for_gateway = k == kind::prefix_request || k == kind::ota_page;
    return is_for_gateway && counts.received == 0 ? "  answered by the gateway"
                                                  : fmt::format("  received {:>9}", counts.received);
}

std::vector<std::string> tracker::summary() const
{
    const tally now = counts();
    const std::scoped_lock lock{m_mutex};
    std::vector<std::string> lines;
    for (size_t i = 0; i < kinds; ++i)
        if (const auto& counts = now.by_kind[i]; counts.sent + counts.received > 0)
            lines.push_back(fmt::format("  {:<18} sent {:>9}{}", kind_name(static_cast<kind>(i)), counts.sent,
                                        m_count_only ? "" : received_text(static_cast<kind>(i), counts)));
    if (!m_count_only)
        lines.push_back(fmt::format("reports: sent {}  received {}  missing {}  unexpected {}  wrong time {}",
                                    now.sent, now.received, now.in_flight + now.lost, now.unexpected,
                                    now.wrong_time));
    lines.push_back(fmt::format("acks: wanted {}  received {}   pings: sent {}  echoed {}", now.acks_wanted,
                                now.acks, now.pings, now.echoes));
    if (now.commands_wanted > 0)
        lines.push_back(fmt::format("commands: published {}  arrived {}", now.commands_wanted, now.commands));
    if (now.stalled > 0)
        lines.push_back(fmt::format("not sent because the gateway did not read: {}", now.stalled));
    if (m_reports.count() > 0)
        lines.push_back("latency bridge to server: " + m_reports.summary());
    if (m_acks.count() > 0)
        lines.push_back("ack after:                " + m_acks.summary());
    if (m_command_times.count() > 0)
        lines.push_back("command to node:          " + m_command_times.summary());
    if (m_pings.count() > 0)
        lines.push_back("ping round trip:          " + m_pings.summary());
    return lines;
}

} // namespace sim
