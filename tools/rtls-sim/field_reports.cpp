// The field's upward half: introducing nodes, and reports at the chosen rate.
#include "rtls-sim/field.h"

#include <fmt/format.h>

#include <algorithm>

namespace sim {

using namespace std::chrono_literals;

static constexpr double introductions_per_second = 5000;
static constexpr auto heartbeat_interval = 20s; // well within the lifetime that heartbeats ask for
// More than this in a bridge's queue, and it reports nothing until the gateway has read some of it.
static constexpr size_t most_unsent = 262'144;
// Of reports that could not be made in time, this many seconds' worth are caught up.
static constexpr double catch_up_s = 0.25;
// One in so many reports of a forwarded node is overheard by another bridge.
static constexpr uint64_t overheard_one_in = 16;

void field::introduce_nodes()
{
    const auto now = steady::now();
    const std::chrono::duration<double> elapsed = now - m_introduced_at;
    const auto allowed =
        static_cast<size_t>(std::min(elapsed.count(), catch_up_s) * introductions_per_second);
    if (allowed == 0)
        return;
    m_introduced_at = now;
    for (size_t i = 0; i < allowed && !m_to_introduce.empty(); ++i) {
        device* d = m_to_introduce.front();
        if (bridge_of(*d).link.unsent() > most_unsent)
            return;
        m_to_introduce.pop_front();
        introduce(*d);
    }
}

void field::introduce(device& d)
{
    // A gateway that knows the node from an earlier run may take the first message for a duplicate.
    bridge& b = bridge_of(d);
    const bool first = !d.introduced;
    send(d, m_maker.make(kind::node_announce, d, b.self.signs.mac, b.prefix, b.version), b, false, true);
    d.introduced = true;
    if (first)
        ++m_introduced;
    send_kind(kind::heartbeat, d);
}

bool field::is_ready(const device& d) const
{
    const bridge& b = *m_bridges[d.bridge - 1];
    return d.introduced && takes_reports(b) && steady::now() >= d.silent_until;
}

bool field::takes_reports(const bridge& b)
{
    return b.joined && !b.leaving && b.link.unsent() <= most_unsent;
}

void field::make_due_reports()
{
    const auto now = steady::now();
    const std::chrono::duration<double> elapsed = now - m_counted_at;
    m_counted_at = now;
    if (!m_reports_flow || m_introduced + m_joined == 0) {
        m_due = 0;
        return;
    }
    m_due += elapsed.count() * m_options.rate;
    while (m_due >= 1 && make_report())
        m_due -= 1;
    const double most = std::max(1.0, m_options.rate * catch_up_s);
    if (m_due > most) {
        m_tracker.stalled(static_cast<uint64_t>(m_due - most));
        m_due = most;
    }
}

// One report of the next device that can make one; false when none can.
bool field::make_report()
{
    for (size_t tried = 0; tried < m_devices.size(); ++tried) {
        device& d = *m_devices[m_next_device];
        m_next_device = (m_next_device + 1) % m_devices.size();
        if (!is_ready(d))
            continue;
        const bool due = steady::now() >= d.next_heartbeat;
        send_kind(due ? kind::heartbeat : m_maker.choose(d), d);
        ++m_made;
        return true;
    }
    return false;
}

void field::send_kind(kind k, device& d)
{
    bridge& own = bridge_of(d);
    if (k == kind::ping)
        return send_ping(own);
    if (k == kind::heartbeat) {
        d.next_heartbeat = steady::now() + heartbeat_interval;
        if (d.is_bridge())
            own.next_heartbeat = d.next_heartbeat;
    }
    bridge* via = &own;
    bool foreign = false;
    if (d.forwarded && m_bridges.size() > 1 && m_maker.below(overheard_one_in) == 0) {
        bridge& other = *m_bridges[(own.number + m_maker.below(m_bridges.size() - 1)) % m_bridges.size()];
        foreign = takes_reports(other);
        if (foreign)
            via = &other;
    }
    send(d, m_maker.make(k, d, via->self.signs.mac, own.prefix, own.version), *via, foreign, false);
}

void field::send_ping(bridge& b)
{
    const uplink_message ping = m_maker.make_ping_of(b.self);
    bytes frame = ping.body;
    if (m_maker.chance(m_options.timestamp_percent))
        frame = sent_with_time(frame, ping.seq, {static_cast<uint32_t>(realtime_ns() / 1'000'000'000U), 0});
    b.pings.emplace(std::string{frame.begin(), frame.end()}, steady::now());
    m_tracker.sent_ping();
    queue(b, frame);
    b.pinged_last = true;
}

static bool can_be_acknowledged(kind k)
{
    return has_trailer(k) && k != kind::ota_page;
}

// The address that comes back in the acknowledgement. For a forwarded report that does not name its
// bridge the gateway takes it from where an envelope has MAC and address.
static std::string ack_key(uint8_t seq, const device& d, kind k)
{
    writer key;
    key.u8(seq);
    if (d.forwarded && !names_bridge(k))
        key.raw(d.signs.mac).raw(view{d.ip}.first(8));
    else
        key.raw(d.ip);
    const bytes made = key.take();
    return {made.begin(), made.end()};
}

// A time of generation within the last three seconds.
static generation_time recent_time(report_maker& maker)
{
    const uint64_t now = realtime_ns() - maker.below(3'000'000'000U);
    const uint64_t fraction = (now % 1'000'000'000U << 16) / 1'000'000'000U;
    return {static_cast<uint32_t>(now / 1'000'000'000U), static_cast<uint16_t>(fraction)};
}

void field::send(device& d, const uplink_message& message, bridge& via, bool foreign, bool optional)
{
    // An envelope counts for itself; acknowledgements go by its number.
    const auto envelope_seq = static_cast<uint8_t>(message.seq ^ 0x80);
    bytes frame = d.forwarded ? sent_forwarded(message, foreign ? msg::forwarded_foreign : msg::forwarded,
                                               envelope_seq, d.ip)
                              : sent_directly(message, via.self.signs.mac, d.ip);
    uint16_t flags = d.direct_mask ? flag_direct : uint16_t{0};
    if (can_be_acknowledged(message.kind) && m_maker.chance(m_options.ack_percent)) {
        flags |= flag_ack;
        via.acks.emplace(ack_key(d.forwarded ? envelope_seq : message.seq, d, message.kind), steady::now());
        m_tracker.wanted_ack();
    }
    set_flags(frame, flags);
    sent_report record{message.kind, message.from, message.seq, message.to, message.content, {}, optional};
    if (m_maker.chance(m_options.timestamp_percent)) {
        const generation_time time = recent_time(m_maker);
        frame = sent_with_time(frame, message.seq, time);
        if (message.to == outlet::handler) // management lines bear the time at which the gateway writes them
            record.time = report_time{time.seconds, time.milliseconds()};
    }
    m_tracker.sent(std::move(record));
    queue(via, frame);
}

void field::queue(bridge& b, view message)
{
    if (b.link.unsent() == 0)
        m_to_flush.push_back(&b);
    b.link.queue(message);
    b.pinged_last = false;
    ++m_messages_up;
}

void field::flush_links()
{
    for (bridge* b : m_to_flush) {
        if (b->link.fd() < 0)
            continue;
        if (!b->link.flush())
            disconnect(*b, "connection closed by the gateway");
        watch(*b);
    }
    m_to_flush.clear();
}

} // namespace sim
