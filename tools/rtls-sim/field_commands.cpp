// The field's downward half: what comes from the gateway, and how nodes obey.
#include "rtls-sim/field.h"

#include <fmt/format.h>

#include <algorithm>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto restart_time = 2s;
static constexpr size_t progress_steps = 10; // lines about one OTA fetch

device* field::find(const mac_bytes& mac)
{
    const auto found = m_by_ip.find(hex(device_ip(mac)));
    return found == m_by_ip.end() ? nullptr : found->second;
}

// The device that a command is for: by its address, or by the MAC in the place of one.
device* field::addressed(const downlink_message& message)
{
    if (const auto found = m_by_ip.find(hex(message.ip)); found != m_by_ip.end())
        return found->second;
    mac_bytes mac{};
    std::copy_n(message.ip.begin(), mac.size(), mac.begin());
    if (device* d = find(mac))
        return d;
    return find(message.mac);
}

void field::received(bridge& b, view message)
{
    ++m_messages_down;
    const downlink_message m = read_downlink(message);
    const device* target = m.way == delivery::broadcast ? &b.self : addressed(m);
    if (m_out.wants_traffic()) {
        const std::string to = target == nullptr ? "unknown node" : short_mac(target->signs.mac);
        m_out.traffic(fmt::format(
            "{} down via {} to {}: {}{}", wall_clock(), short_mac(b.self.signs.mac), to, describe(m),
            m.way == delivery::broadcast ? std::string{} : fmt::format(" ({})", delivery_name(m.way))));
    }
    if (!m.valid) {
        m_out.notice(fmt::format("unreadable from the gateway: {}", hex(message)));
        return;
    }
    switch (static_cast<msg>(m.type)) {
    case msg::ping:
        return received_echo(b, message);
    case msg::prefix_response:
        return join(b, m);
    case msg::rest_ack:
        return received_ack(b, m);
    case msg::update_command:
        return m_out.notice(fmt::format("bridge {} is to update its firmware", short_mac(b.self.signs.mac)));
    default:
        return received_command(b, m);
    }
}

void field::received_echo(bridge& b, view message)
{
    const auto found = b.pings.find(std::string{message.begin(), message.end()});
    const bool expected = found != b.pings.end();
    m_tracker.echoed(expected, expected ? steady::now() - found->second : 0s);
    if (expected)
        b.pings.erase(found);
}

// Nobody waits for an acknowledgement that the servers sent through the proxy; it is told by its line.
void field::received_ack(bridge& b, const downlink_message& message)
{
    const bytes key = writer{}.u8(message.seq).raw(message.ip).take();
    const auto found = b.acks.find(std::string{key.begin(), key.end()});
    const bool expected = found != b.acks.end();
    m_tracker.acked(expected, expected ? steady::now() - found->second : 0s);
    if (expected)
        b.acks.erase(found);
}

void field::received_command(bridge& b, const downlink_message& message)
{
    device* d = addressed(message);
    if (d == nullptr || d->bridge != b.number)
        return; // a gateway that does not know a node's bridge asks them all: the others let it pass
    if (m_tracker.command_arrived(d->signs.mac, message.type, message.payload))
        return;
    switch (static_cast<msg>(message.type)) {
    case msg::generic_down:
        return obey_generic(*d, message.payload);
    case msg::conf_node:
        return obey_config(*d, message);
    default:
        m_out.notice(fmt::format("node {} got: {}", short_mac(d->signs.mac), describe(message)));
    }
}

void field::obey_generic(device& d, view payload)
{
    if (const auto page = read_ota_page(payload)) {
        if (const auto running = m_fetches.find(&d); running != m_fetches.end())
            running->second.state.accept(*page);
        return;
    }
    if (const auto order = read_ota_order(payload))
        return begin_fetch(d, *order, m_options.ota_page_size);
    reader in{payload};
    const uint16_t command = in.be16();
    if (!in.failed() && command == code(sub::reboot))
        return restart(d, "reboots");
    if (!in.failed() && command == code(sub::ota_apply)) {
        const auto fetched = m_fetched.find(&d);
        if (fetched == m_fetched.end())
            return m_out.notice(fmt::format("node {} has no firmware to apply", short_mac(d.signs.mac)));
        d.signs.sw_version = fetched->second;
        return restart(d, "applies its new firmware and reboots");
    }
    m_out.notice(fmt::format("node {} got a generic request: {}", short_mac(d.signs.mac), hex(payload)));
}

void field::obey_config(device& d, const downlink_message& message)
{
    const auto config = read_config(message.payload);
    if (!config)
        return;
    d.signs.reporting_freq = config->reporting_freq;
    d.signs.ranging_freq = config->ranging_freq;
    d.signs.role = config->role & 0x0F;
    d.signs.sublocation = config->sublocation;
    d.signs.x = config->x;
    d.signs.y = config->y;
    d.signs.z = config->z;
    m_out.notice(fmt::format("node {} is now {} at {},{},{}", short_mac(d.signs.mac), role_name(d.signs.role),
                             d.signs.x, d.signs.y, d.signs.z));
    send_kind(kind::heartbeat, d);
}

// Silent for a while; then its first heartbeat is due.
void field::restart(device& d, const char* why)
{
    m_out.notice(fmt::format("node {} {}", short_mac(d.signs.mac), why));
    d.silent_until = steady::now() + restart_time;
    d.next_heartbeat = d.silent_until;
}

void field::start_ota(const mac_bytes& node, const ota_order& order, uint16_t page_size)
{
    post([this, node, order, page_size] {
        device* d = find(node);
        if (d == nullptr || !d->introduced)
            m_out.notice(fmt::format("no node {} in the simulated network", short_mac(node)));
        else
            begin_fetch(*d, order, page_size);
    });
}

void field::begin_fetch(device& d, const ota_order& order, uint16_t page_size)
{
    const bool known = !m_options.ota_image.empty() && crc32(m_options.ota_image) == order.crc &&
                       m_options.ota_image.size() == order.size;
    m_out.notice(fmt::format("node {} fetches firmware {:08X}, {} bytes in pages of {}",
                             short_mac(d.signs.mac), order.git_id, order.size, page_size));
    m_fetches.insert_or_assign(&d, fetch{{order, page_size, known ? m_options.ota_image : bytes{}}});
    m_ota_running = static_cast<unsigned>(m_fetches.size());
}

void field::tend_fetches()
{
    const auto now = steady::now();
    for (auto at = m_fetches.begin(); at != m_fetches.end();) {
        device& d = *at->first;
        fetch& running = at->second;
        bridge& b = bridge_of(d);
        if (const auto wanted =
                d.introduced && takes_reports(b) ? running.state.next_request(now) : std::nullopt)
            send(d, make_ota_page_request(d.signs.mac, d.next_seq(), *wanted), b, false, true);
        if (running.state.finished()) {
            end_fetch(d, running);
            at = m_fetches.erase(at);
            m_ota_running = static_cast<unsigned>(m_fetches.size());
            continue;
        }
        if (running.state.pages_received() >= running.told + running.state.pages() / progress_steps + 1) {
            running.told = running.state.pages_received();
            m_out.notice(fmt::format("node {}: {}", short_mac(d.signs.mac), running.state.progress(now)));
        }
        ++at;
    }
}

void field::end_fetch(device& d, const fetch& ended)
{
    m_out.notice(
        fmt::format("node {}: firmware {}", short_mac(d.signs.mac), ended.state.progress(steady::now())));
    if (!ended.state.succeeded()) {
        ++m_ota_failed;
        return;
    }
    ++m_ota_succeeded;
    m_fetched.insert_or_assign(&d, ended.state.git_id());
}

} // namespace sim
