#include "rtls-sim/field.h"

#include "rtls-sim/discovery.h"

#include <fmt/format.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>

namespace sim {

using namespace std::chrono_literals;

// As many bridges connect at the same time; more would overrun the listen queue of a gateway that has not
// had it raised.
static constexpr unsigned most_connecting = 64;
static constexpr auto connect_again_after = 1s;
static constexpr auto greeting_timeout = 5s;
static constexpr auto prefix_timeout = 3s;
static constexpr auto tend_interval = 50ms;

field::field(const field_options& options, tracker& tracker, console& out)
    : m_options(options), m_tracker(tracker), m_out(out),
      m_maker(options.seed, static_cast<uint32_t>(realtime_ns() >> 20))
{
    open_poll();
    build_bridges();
}

field::~field()
{
    m_bridges.clear();
    close(m_wake);
    close(m_poll);
}

void field::open_poll()
{
    m_poll = epoll_create1(EPOLL_CLOEXEC);
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;
    if (m_poll < 0 || m_wake < 0 || epoll_ctl(m_poll, EPOLL_CTL_ADD, m_wake, &event) != 0)
        throw std::system_error{errno, std::generic_category(), "epoll"};
}

void field::build_bridges()
{
    for (unsigned number = 1; number <= m_options.bridges; ++number) {
        auto b = std::make_unique<bridge>();
        b->number = number;
        b->self = make_device(number, 0, 0, m_maker.random());
        for (unsigned node = 1; node <= m_options.nodes; ++node)
            b->nodes.push_back(make_device(number, node, m_options.forwarded_percent, m_maker.random()));
        m_bridges.push_back(std::move(b));
    }
    // Bridges take turns, so that no connection gets a burst.
    for (unsigned node = 0; node <= m_options.nodes; ++node)
        for (const auto& b : m_bridges)
            m_devices.push_back(node == 0 ? &b->self : &b->nodes[node - 1]);
    for (device* d : m_devices)
        m_by_ip.emplace(hex(d->ip), d);
}

void field::wake() const
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_wake, &one, sizeof one);
}

void field::post(std::function<void()> job)
{
    {
        const std::scoped_lock lock{m_jobs_mutex};
        m_jobs.push_back(std::move(job));
    }
    wake();
}

void field::run_jobs()
{
    std::vector<std::function<void()>> jobs;
    {
        const std::scoped_lock lock{m_jobs_mutex};
        jobs.swap(m_jobs);
    }
    for (const auto& job : jobs)
        job();
}

void field::run(const std::stop_token& stop)
{
    const std::stop_callback wake_up{stop, [this] { wake(); }};
    m_counted_at = steady::now();
    while (!stop.stop_requested()) {
        handle_events(wait_time_ms());
        run_jobs();
        tend_bridges();
        introduce_nodes();
        tend_fetches();
        make_due_reports();
        flush_links();
    }
}

// Until the next report is due; not longer than the bridges may go untended.
int field::wait_time_ms() const
{
    const auto longest = static_cast<double>(std::chrono::milliseconds{tend_interval}.count());
    if (!m_to_introduce.empty())
        return 1;
    if (!m_reports_flow || m_introduced == 0 || m_options.rate <= 0)
        return static_cast<int>(longest);
    return static_cast<int>(std::clamp((1 - m_due) * 1000 / m_options.rate, 1.0, longest));
}

void field::handle_events(int timeout_ms)
{
    std::array<epoll_event, 256> events{};
    const int count = epoll_wait(m_poll, events.data(), static_cast<int>(events.size()), timeout_ms);
    for (int i = 0; i < count; ++i) {
        auto* b = static_cast<bridge*>(events[static_cast<size_t>(i)].data.ptr);
        if (b == nullptr) {
            uint64_t drained = 0;
            [[maybe_unused]] const ssize_t got = read(m_wake, &drained, sizeof drained);
            continue;
        }
        const uint32_t what = events[static_cast<size_t>(i)].events;
        const bool failed = (what & (EPOLLERR | EPOLLHUP)) != 0;
        const bool was_up = b->link.now() == bridge_link::state::up;
        const bool alive = b->link.on_ready((what & EPOLLIN) != 0 || failed, (what & EPOLLOUT) != 0,
                                            [&](view message) { received(*b, message); });
        if (!alive)
            disconnect(*b, was_up ? "connection closed by the gateway" : "is not there");
        else if (b->link.now() == bridge_link::state::up && !was_up) {
            ++m_connections;
            m_absence_told = false;
            if (!b->asked)
                ask_prefix(*b);
        }
        watch(*b);
    }
}

// Keeps the events that are polled for in step with what the link needs.
void field::watch(bridge& b)
{
    const uint32_t wanted =
        b.link.fd() < 0 ? 0
                        : (EPOLLIN | (b.link.wants_write() ? EPOLLOUT : 0U)); // closing removes a descriptor
    if (wanted == b.watched)
        return;
    epoll_event event{};
    event.events = wanted;
    event.data.ptr = &b;
    if (b.link.fd() >= 0)
        epoll_ctl(m_poll, b.watched == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, b.link.fd(), &event);
    b.watched = wanted;
}

void field::tend_bridges()
{
    const auto now = steady::now();
    if (now - m_tended_at < tend_interval)
        return;
    m_tended_at = now;
    for (const auto& b : m_bridges)
        tend_bridge(*b, now);
    send_one_away(now);
}

void field::tend_bridge(bridge& b, steady::time_point now)
{
    switch (b.link.now()) {
    case bridge_link::state::down:
        if (m_may_connect && now >= b.connect_at && std::ranges::count_if(m_bridges, [](const auto& other) {
                                                        const auto state = other->link.now();
                                                        return state == bridge_link::state::connecting ||
                                                               state == bridge_link::state::waiting;
                                                    }) < most_connecting)
            connect(b);
        break;
    case bridge_link::state::connecting:
    case bridge_link::state::waiting:
        if (now >= b.give_up_at)
            disconnect(b, "does not greet");
        break;
    case bridge_link::state::up:
        if (b.leaving)
            leave(b);
        else if (!b.joined && now >= b.give_up_at)
            ask_prefix(b);
        else if (b.joined && now >= b.next_heartbeat)
            send_kind(kind::heartbeat, b.self);
    }
}

// Of those that have joined with all their nodes the next one, while reports flow.
void field::send_one_away(steady::time_point now)
{
    const std::chrono::duration<double> since = now - m_churned_at;
    if (m_options.churn <= 0 || !m_reports_flow || since.count() < m_options.churn)
        return;
    m_churned_at = now;
    for (size_t tried = 0; tried < m_bridges.size(); ++tried) {
        bridge& b = *m_bridges[m_next_to_leave++ % m_bridges.size()];
        if (!b.joined || b.leaving || !std::ranges::all_of(b.nodes, &device::introduced))
            continue;
        b.leaving = true;
        ++m_leaving;
        return;
    }
}

// In order: behind the last thing it sent goes a ping, whose echo says that the gateway has read all of it.
void field::leave(bridge& b)
{
    if (!b.acks.empty() || !b.pings.empty() || b.link.unsent() > 0)
        return;
    if (b.pinged_last)
        disconnect(b, "leaves, and comes again");
    else
        send_ping(b);
}

void field::connect(bridge& b)
{
    const auto now = steady::now();
    if (!m_gateway_known && now >= m_discover_at) {
        const auto asked = resolve(m_options.discover ? m_options.discovery_address : m_options.host,
                                   m_options.discover ? m_options.discovery_port : m_options.win_port);
        const auto found =
            asked && m_options.discover ? discover_gateway(*asked, b.self.signs.mac, 500ms) : asked;
        m_discover_at = now + 1s;
        if (found && m_options.discover)
            m_out.notice(fmt::format("discovered the gateway at {}", endpoint_text(*found)));
        else if (!found)
            m_out.notice(m_options.discover ? "no answer to the discovery request" : "unknown gateway host");
        if (found) {
            m_gateway = *found;
            m_gateway_known = true;
        }
    }
    b.connect_at = now + connect_again_after;
    b.give_up_at = now + greeting_timeout;
    if (m_gateway_known && b.link.connect(m_gateway))
        watch(b);
}

// Once for all bridges and attempts: the first one says whom they all miss.
void field::tell_absence(const char* why)
{
    if (!m_absence_told)
        m_out.notice(
            fmt::format("the gateway at {} {}: tried again every second", endpoint_text(m_gateway), why));
    m_absence_told = true;
}

void field::disconnect(bridge& b, const char* why)
{
    if (b.link.now() == bridge_link::state::up)
        m_out.notice(fmt::format("bridge {}: {}", short_mac(b.self.signs.mac), why));
    else
        tell_absence(why);
    b.link.close();
    b.watched = 0;
    b.asked = false;
    b.acks.clear();
    b.pings.clear();
    b.pinged_last = false;
    b.connect_at = steady::now() + connect_again_after;
    if (b.leaving)
        --m_leaving;
    b.leaving = false;
    if (!b.joined)
        return;
    b.joined = false;
    --m_joined;
    const auto forget = [this](device& d) {
        if (d.introduced)
            --m_introduced;
        d.introduced = false;
    };
    std::ranges::for_each(b.nodes, forget);
    b.self.introduced = false;
    std::erase_if(m_to_introduce, [&](const device* d) { return d->bridge == b.number; });
    if (m_options.discover)
        m_gateway_known = false; // it may come back elsewhere
}

void field::ask_prefix(bridge& b)
{
    b.asked = true;
    b.give_up_at = steady::now() + prefix_timeout;
    send(b.self, make_prefix_request(b.self.signs.mac, b.self.next_seq()), b, false, false);
}

// The gateway tells all bridges the prefix whenever one of them asks.
void field::join(bridge& b, const downlink_message& message)
{
    if (!b.asked)
        ask_prefix(b);
    b.prefix = static_cast<uint16_t>(message.payload[0] | message.payload[1] << 8);
    b.version = message.payload[2];
    if (b.joined)
        return;
    b.joined = true;
    ++m_joined;
    b.self.introduced = true;
    send_kind(kind::root_announce, b.self);
    send_kind(kind::heartbeat, b.self);
    for (device& d : b.nodes)
        m_to_introduce.push_back(&d);
}

bool field::is_complete() const
{
    return m_joined == m_options.bridges && m_introduced == m_options.bridges * m_options.nodes &&
           m_leaving == 0;
}

field_state field::state() const
{
    return {m_joined, m_introduced, m_connections, m_messages_up, m_messages_down};
}

void field::list_devices()
{
    post([this] {
        for (const device* d : m_devices)
            m_out.notice(fmt::format("{} {:<11} bridge {:<3} {:<9} seq {:3} sw {:08X} xyz {},{},{} {}",
                                     short_mac(d->signs.mac), role_name(d->signs.role & 0x0F), d->bridge,
                                     d->forwarded ? "forwarded" : "direct", d->seq, d->signs.sw_version,
                                     d->signs.x, d->signs.y, d->signs.z, ip_text(d->ip)));
    });
}

} // namespace sim
