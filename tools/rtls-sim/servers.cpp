#include "rtls-sim/servers.h"

#include "rtls-sim/command.h"

#include <fmt/format.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace sim {

// So that a pause of ours does not make the gateway drop reports.
static constexpr int receive_queue = 1'000'000;
// Messages taken from one socket before the others get their turn.
static constexpr int batch = 256;
static constexpr size_t most_gaps = 100'000;

void stamp_watch::seen(const report_stamp& stamp)
{
    m_latency.add(std::chrono::nanoseconds{static_cast<int64_t>(realtime_ns() - stamp.time_ns)});
    run& r = m_runs[stamp.run];
    ++r.received;
    if (r.received == 1)
        r.first = r.last = stamp.counter;
    else if (stamp.counter > r.last) {
        for (uint64_t missed = r.last + 1; missed < stamp.counter && r.gaps.size() < most_gaps; ++missed)
            r.gaps.insert(missed);
        r.last = stamp.counter;
    } else if (r.gaps.erase(stamp.counter) == 0) {
        // Reports take several connections, so the first one to come need not be the first of the run.
        if (stamp.counter >= r.first)
            ++r.repeated;
        for (uint64_t missed = stamp.counter + 1; missed < r.first && r.gaps.size() < most_gaps; ++missed)
            r.gaps.insert(missed);
        r.first = std::min(r.first, stamp.counter);
    }
}

std::vector<std::string> stamp_watch::summary() const
{
    std::vector<std::string> lines;
    for (const auto& [id, r] : m_runs)
        lines.push_back(fmt::format("run {:08X}: stamped reports {} (numbers {} to {}), lost {}, repeated {}",
                                    id, r.received, r.first, r.last, r.gaps.size(), r.repeated));
    if (!m_runs.empty())
        lines.push_back("latency of stamped reports: " + m_latency.summary());
    return lines;
}

servers::servers(const servers_options& options, tracker* tracker, console& out)
    : m_options(options), m_tracker(tracker), m_out(out), m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_handler(m_context, zmq::socket_type::pull), m_proxy_input(m_context, zmq::socket_type::pull),
      m_broker(m_context, zmq::socket_type::pull), m_proxy(m_context, zmq::socket_type::xpub),
      m_handler_monitor(m_context, zmq::socket_type::pair), m_input_monitor(m_context, zmq::socket_type::pair)
{
    if (m_wake < 0)
        throw std::system_error{errno, std::generic_category(), "eventfd"};
    m_proxy.set(zmq::sockopt::xpub_verboser, 1); // tells about every subscriber that comes and goes
    watch_peers(m_handler, m_handler_monitor, "inproc://handler");
    watch_peers(m_proxy_input, m_input_monitor, "inproc://input");
    bind(m_handler, m_options.handler_port);
    bind(m_proxy_input, m_options.proxy_input_port);
    bind(m_proxy, m_options.proxy_port);
    if (m_options.broker)
        bind(m_broker, m_options.broker_port);
}

servers::~servers()
{
    close(m_wake);
}

void servers::bind(zmq::socket_t& socket, uint16_t port) const
{
    socket.set(zmq::sockopt::linger, 1000);
    socket.set(zmq::sockopt::rcvhwm, receive_queue);
    try {
        socket.bind(fmt::format("tcp://{}:{}", m_options.address, port));
    } catch (const zmq::error_t& error) {
        throw std::system_error{error.num(), std::generic_category(),
                                fmt::format("{}:{}", m_options.address, port)};
    }
}

void servers::watch_peers(zmq::socket_t& socket, zmq::socket_t& monitor, const char* name)
{
    if (zmq_socket_monitor(socket.handle(), name, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED) !=
        0)
        throw zmq::error_t{};
    monitor.connect(name);
}

void servers::wake() const
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_wake, &one, sizeof one);
}

void servers::publish(bytes command)
{
    {
        const std::scoped_lock lock{m_queue_mutex};
        m_queue.push_back(std::move(command));
    }
    wake();
}

void servers::run(const std::stop_token& stop)
{
    const std::stop_callback wake_up{stop, [this] { wake(); }};
    std::array<zmq::pollitem_t, 7> items{{{m_handler.handle(), 0, ZMQ_POLLIN, 0},
                                          {m_proxy_input.handle(), 0, ZMQ_POLLIN, 0},
                                          {m_broker.handle(), 0, ZMQ_POLLIN, 0},
                                          {m_proxy.handle(), 0, ZMQ_POLLIN, 0},
                                          {m_handler_monitor.handle(), 0, ZMQ_POLLIN, 0},
                                          {m_input_monitor.handle(), 0, ZMQ_POLLIN, 0},
                                          {nullptr, m_wake, ZMQ_POLLIN, 0}}};
    while (!stop.stop_requested()) {
        zmq::poll(items.data(), items.size(), std::chrono::milliseconds{-1});
        const auto ready = [&](size_t i) { return (items[i].revents & ZMQ_POLLIN) != 0; };
        if (ready(0))
            read_handler();
        if (ready(1))
            read_proxy_input();
        if (ready(2))
            read_broker();
        if (ready(3))
            read_subscription();
        if (ready(4))
            read_monitor(m_handler_monitor, m_handler_peers, "message handler");
        if (ready(5))
            read_monitor(m_input_monitor, m_input_peers, "proxy input");
        if (ready(6))
            publish_queued();
    }
}

static view bytes_of(const zmq::message_t& message)
{
    return {message.data<uint8_t>(), message.size()};
}

void servers::read_handler()
{
    for (int i = 0; i < batch; ++i) {
        std::array<zmq::message_t, 2> frames;
        if (!m_handler.recv(frames[0], zmq::recv_flags::dontwait))
            return;
        size_t count = 1;
        bool more = frames[0].more();
        while (more) {
            zmq::message_t& next = frames[1]; // a third frame overwrites the second: counted as malformed
            [[maybe_unused]] const auto got = m_handler.recv(next, zmq::recv_flags::none);
            more = next.more();
            ++count;
        }
        if (count == 2)
            take(outlet::handler, read_handler_message(bytes_of(frames[0]), bytes_of(frames[1])));
        else
            m_out.notice(fmt::format("message handler: a message of {} frames", count));
    }
}

void servers::read_proxy_input()
{
    for (int i = 0; i < batch; ++i) {
        zmq::message_t frame;
        if (!m_proxy_input.recv(frame, zmq::recv_flags::dontwait))
            return;
        take(outlet::proxy_input, read_management_line(frame.to_string_view()));
    }
}

void servers::read_broker()
{
    for (int i = 0; i < batch; ++i) {
        zmq::message_t frame;
        if (!m_broker.recv(frame, zmq::recv_flags::dontwait))
            return;
        ++m_broker_records;
        if (m_options.broker_log && m_out.wants_traffic())
            m_out.traffic(fmt::format("{} log  {}", wall_clock(), frame.to_string_view()));
    }
}

void servers::read_subscription()
{
    zmq::message_t frame;
    while (m_proxy.recv(frame, zmq::recv_flags::dontwait)) {
        const view message = bytes_of(frame);
        if (message.empty() || message[0] > 1)
            continue;
        if (message[0] == 1)
            ++m_subscribed;
        else if (m_subscribed > 0)
            --m_subscribed;
        m_out.notice(message[0] == 1 ? "the gateway has subscribed to the proxy"
                                     : "the gateway has left the proxy");
    }
}

void servers::read_monitor(zmq::socket_t& monitor, std::atomic<int>& peers, const char* name)
{
    zmq::message_t event;
    zmq::message_t address;
    while (monitor.recv(event, zmq::recv_flags::dontwait)) {
        [[maybe_unused]] const auto got = monitor.recv(address, zmq::recv_flags::none);
        uint16_t what = 0;
        std::copy_n(event.data<uint8_t>(), sizeof what, reinterpret_cast<uint8_t*>(&what));
        const bool came = what == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
        if (!came && peers == 0)
            continue;
        peers += came ? 1 : -1;
        m_out.notice(fmt::format("the gateway has {} the {}", came ? "connected to" : "left", name));
    }
}

void servers::publish_queued()
{
    uint64_t drained = 0;
    [[maybe_unused]] const ssize_t got = read(m_wake, &drained, sizeof drained);
    std::vector<bytes> commands;
    {
        const std::scoped_lock lock{m_queue_mutex};
        commands.swap(m_queue);
    }
    for (const bytes& command : commands) {
        const std::string text = hex(command);
        send_command(text);
        if (m_out.wants_traffic())
            m_out.traffic(fmt::format("{} publish {}", wall_clock(), text));
    }
}

void servers::send_command(const std::string& text)
{
    m_proxy.send(zmq::buffer(text), zmq::send_flags::dontwait);
    ++m_published;
}

void servers::take(outlet where, const upstream_report& report)
{
    ++m_reports;
    m_lines += where == outlet::proxy_input ? 1 : 0;
    if (report.stamp)
        m_stamps.seen(*report.stamp);
    const auto verdict =
        m_tracker == nullptr ? tracker::verdict::expected : m_tracker->arrived(where, report);
    if (report.page)
        serve_page(report);
    const char* remark = "";
    if (verdict == tracker::verdict::unexpected)
        remark = "  (not sent like this by our bridges)";
    else if (verdict == tracker::verdict::wrong_time)
        remark = "  (wrong time)";
    if (*remark == '\0' ? m_out.wants_traffic() : true) {
        const std::string line = fmt::format("{} up   {}.{:03} {}{}", wall_clock(), report.time.seconds % 60,
                                             report.time.milliseconds, describe(report), remark);
        *remark == '\0' ? m_out.traffic(line) : m_out.notice(line);
    }
}

// As the servers do: the page goes down as a command to the node, and the gateway keeps a copy.
void servers::serve_page(const upstream_report& request)
{
    const ota_page_id& id = *request.page;
    const size_t start = size_t{id.page_size} * id.page;
    if (m_options.ota_image.empty() || crc32(m_options.ota_image) != id.crc ||
        start >= m_options.ota_image.size())
        return;
    send_command(hex(page_command(request.from, request.seq, id, m_options.ota_image)));
}

} // namespace sim
