// load_generator - bridges that report, or get commands, at a chosen rate, and the servers at the other end that count,
// time and compare what comes out.
//
//   load_generator --win-port P --handler-port P --pid PID [--bridges N] [--per-write N] [--rate R] [--window W]
//                  [--seconds S] [--size BYTES] [--mixed] [--relay]
//   ... --commands --proxy-port P
//   ... --broker-port P            takes what the debug broker gets
//   ... --reconnect                connects until the subject is there; times its first reports
//
// With --rate 0 it keeps `window` messages under way and so finds the highest throughput at which none is lost. Prints
// one JSON object; the processor time is that of all threads of PID during the measured time.
#include "load_bridges.h"
#include "load_messages.h"

#include <CLI/CLI.hpp>
#include <zmq.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using namespace rtls;
using namespace rtls::load;

namespace {

using namespace std::chrono_literals;

constexpr uint32_t compared_every = 16;

uint64_t now_ns()
{
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

struct load_options {
    uint16_t win_port = 0;
    uint16_t handler_port = 0;
    uint16_t proxy_port = 0;
    uint16_t broker_port = 0;
    int pid = 0;
    size_t bridges = 50;
    size_t per_write = 0; // 0: what is due, dealt out among the bridges
    double rate = 20000;
    size_t window = 300; // queues of 1,000 free up by halves: beyond 500 a report may be lost
    double seconds = 5;
    size_t payload_size = 24;
    bool is_mixed = false;
    bool is_relay = false;
    bool are_commands = false;
    bool is_reconnect = false;

    [[nodiscard]] subject by() const { return is_relay ? subject::relay : subject::gateway; }
};

// Nanoseconds of processor time of all threads of a process.
uint64_t cpu_ns(int pid)
{
    uint64_t total = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        uint64_t ns = 0;
        std::ifstream(task.path() / "schedstat") >> ns;
        total += ns;
    }
    return total;
}

double resident_kb(int pid)
{
    size_t all = 0;
    size_t resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> all >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

void* bound_socket(void* context, int type, uint16_t port)
{
    void* socket = zmq_socket(context, type);
    const int unlimited = 0;
    zmq_setsockopt(socket, ZMQ_RCVHWM, &unlimited, sizeof unlimited);
    zmq_setsockopt(socket, ZMQ_SNDHWM, &unlimited, sizeof unlimited);
    if (zmq_bind(socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str()) != 0) {
        std::perror("bind");
        std::exit(1);
    }
    return socket;
}

// What has arrived, by whichever way.
class arrivals {
public:
    explicit arrivals(const load_options& options) : m_options(options) {}

    // Of every sixteenth, what has to arrive.
    void expect(uint32_t number, message what)
    {
        if (number % compared_every == 0)
            m_expected[number / compared_every % m_expected.size()] = std::move(what);
    }

    void take_report(std::span<const uint8_t> handed)
    {
        if (const auto mark = mark_of(m_options.by(), handed))
            take(*mark, handed);
    }

    void take(mark what, std::span<const uint8_t> bytes)
    {
        m_latencies_us.push_back(static_cast<uint32_t>((now_ns() - what.sent_ns) / 1000));
        ++m_received;
        if (what.number % compared_every != 0)
            return;
        const message& expected = m_expected[what.number / compared_every % m_expected.size()];
        m_different +=
            !expected.empty() && !std::equal(expected.begin(), expected.end(), bytes.begin(), bytes.end());
        ++m_compared;
    }

    void forget_times()
    {
        m_latencies_us.clear();
        m_compared = 0;
    }

    double percentile(double p)
    {
        auto& l = m_latencies_us;
        if (l.empty())
            return 0;
        const auto at = std::min(l.size() - 1, static_cast<size_t>(p * static_cast<double>(l.size())));
        std::nth_element(l.begin(), l.begin() + static_cast<ptrdiff_t>(at), l.end());
        return l[at];
    }

    [[nodiscard]] size_t received() const { return m_received; }
    [[nodiscard]] size_t compared() const { return m_compared; }
    [[nodiscard]] size_t different() const { return m_different; }

private:
    const load_options& m_options;
    size_t m_received = 0;
    size_t m_compared = 0;
    size_t m_different = 0;
    std::vector<uint32_t> m_latencies_us;
    std::array<message, 4096> m_expected; // far more than are under way
};

void drain(void* socket, auto&& take)
{
    std::array<uint8_t, 1024> bytes{};
    for (int size = 0; (size = zmq_recv(socket, bytes.data(), bytes.size(), ZMQ_DONTWAIT)) >= 0;)
        take(std::span{bytes}.first(std::min(bytes.size(), static_cast<size_t>(size))));
}

// The message handler's end: two parts, of which the second is the message.
void take_reports(void* handler, arrivals& to, int timeout_ms)
{
    zmq_pollitem_t item{handler, 0, ZMQ_POLLIN, 0};
    if (zmq_poll(&item, 1, timeout_ms) <= 0)
        return;
    bool is_second = false;
    drain(handler, [&](std::span<const uint8_t> part) {
        if (is_second)
            to.take_report(part);
        is_second = !is_second;
    });
}

class load_run {
public:
    load_run(const load_options& options, void* context)
        : m_options(options), m_arrivals(options),
          m_handler(bound_socket(context, ZMQ_PULL, options.handler_port))
    {
        if (options.are_commands)
            m_proxy = bound_socket(context, ZMQ_XPUB, options.proxy_port);
        if (options.broker_port)
            m_broker = bound_socket(context, ZMQ_PULL, options.broker_port);
    }

    // How long it takes from `begin_ns` until each bridge is connected and its first report has come out, in seconds:
    // the first bridge's, the last one's.
    std::pair<double, double> reconnect(uint64_t begin_ns)
    {
        m_bridges.connect_until_there(m_options.win_port, m_options.bridges);
        for (size_t i = 0; i < m_options.bridges; ++i)
            send_one(i);
        double first = 0;
        while (m_arrivals.received() < m_options.bridges) {
            take_reports(m_handler, m_arrivals, 1);
            if (first == 0 && m_arrivals.received() > 0)
                first = static_cast<double>(now_ns() - begin_ns) / 1e9;
        }
        return {first, static_cast<double>(now_ns() - begin_ns) / 1e9};
    }

    void connect()
    {
        m_resident_before = resident_kb(m_options.pid);
        m_bridges.connect(m_options.win_port, m_options.bridges);
        for (size_t i = 0; i < m_options.bridges; ++i) {
            m_bridges.write(i, framed(heartbeat(i, 0, {})));
            if (m_options.is_mixed)
                m_bridges.write(i, framed(heartbeat_behind(i)));
        }
        const size_t nodes = m_options.bridges * (m_options.is_mixed ? 2 : 1);
        for (size_t named = 0; named < nodes;) // they reach the handler, too
            drain(m_handler, [&, second = false](std::span<const uint8_t>) mutable {
                named += second;
                second = !second;
            });
        if (m_proxy)
            wait_for_subscription();
        m_resident_after = resident_kb(m_options.pid);
    }

    // Sends and receives for `seconds`, then waits for the stragglers.
    void run(double seconds)
    {
        const uint64_t begin = now_ns();
        const size_t base = m_sent;
        for (;;) {
            const double elapsed = static_cast<double>(now_ns() - begin) / 1e9;
            if (elapsed >= seconds)
                break;
            const size_t most = m_arrivals.received() + m_options.window;
            const size_t due =
                m_options.rate > 0 ? base + static_cast<size_t>(elapsed * m_options.rate) : most;
            send_until(std::min(due, most));
            take(1);
        }
        for (const uint64_t end = now_ns() + 2'000'000'000; m_arrivals.received() < m_sent && now_ns() < end;)
            take(10);
    }

    void measure()
    {
        run(0.5); // warm up: connections settle, the registry knows the nodes
        m_arrivals.forget_times();
        const size_t sent_before = m_sent;
        const size_t received_before = m_arrivals.received();
        const uint64_t cpu_before = cpu_ns(m_options.pid);
        const uint64_t begin = now_ns();
        run(m_options.seconds);
        print(m_sent - sent_before, m_arrivals.received() - received_before,
              static_cast<double>(now_ns() - begin) / 1e9, cpu_ns(m_options.pid) - cpu_before);
    }

private:
    message next_message(size_t bridge, mark what)
    {
        const auto seq = static_cast<uint8_t>(++m_seq[bridge]);
        return m_options.is_mixed ? mixed(bridge, seq, what, m_options.payload_size)
                                  : sensor(bridge, seq, what, m_options.payload_size);
    }

    void send_one(size_t bridge)
    {
        m_seq.resize(m_options.bridges);
        m_bridges.write(bridge, framed(heartbeat(bridge, 0, {now_ns(), 1})));
    }

    // Deals what is due out among the bridges.
    void send_until(size_t due)
    {
        m_seq.resize(m_options.bridges);
        while (m_sent < due) {
            const size_t share = std::max<size_t>(1, (due - m_sent) / m_options.bridges);
            if (m_options.are_commands)
                publish();
            else if (due - m_sent < m_options.per_write)
                return; // no write of less
            else
                write(m_options.per_write ? m_options.per_write : share);
            m_next = (m_next + 1) % m_options.bridges;
        }
    }

    void write(size_t count)
    {
        m_buffer.clear();
        for (size_t i = 0; i < count; ++i) {
            const mark what{now_ns(), static_cast<uint32_t>(++m_sent)};
            const message m = next_message(m_next, what);
            m_arrivals.expect(what.number, handed_on(m_options.by(), m));
            const message bytes = framed(m);
            m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
        }
        m_bridges.write(m_next, m_buffer);
        if (m_options.is_mixed)
            m_bridges.overlook_answers(m_next);
    }

    void publish()
    {
        const mark what{now_ns(), static_cast<uint32_t>(++m_sent)};
        const std::string text = command(m_next, what);
        zmq_send(m_proxy, text.data(), text.size(), 0);
    }

    void take(int timeout_ms)
    {
        if (m_options.are_commands)
            m_bridges.take(timeout_ms, [this](std::span<const uint8_t> m) {
                if (const auto mark = mark_of_command(m))
                    m_arrivals.take(*mark, m);
            });
        else
            take_reports(m_handler, m_arrivals, timeout_ms);
        if (m_broker)
            drain(m_broker, [this](std::span<const uint8_t>) { ++m_records; });
    }

    void wait_for_subscription()
    {
        std::array<char, 64> what{};
        zmq_recv(m_proxy, what.data(), what.size(), 0);
        std::this_thread::sleep_for(200ms); // nothing tells when the subject's own table knows every bridge
    }

    void print(size_t sent, size_t received, double seconds, uint64_t cpu)
    {
        const auto n = static_cast<double>(std::max<size_t>(received, 1));
        std::printf(
            "{\"bridges\": %zu, \"sent\": %zu, \"received\": %zu, \"lost\": %zu, \"compared\": %zu, "
            "\"different\": %zu, \"reports_per_s\": %.0f, \"cpu_us_per_report\": %.3f, \"p50_us\": %.0f, "
            "\"p99_us\": %.0f, \"p99_9_us\": %.0f, \"records\": %zu, \"kb_per_bridge\": %.1f}\n",
            m_options.bridges, sent, received, sent - received, m_arrivals.compared(), m_arrivals.different(),
            n / seconds, static_cast<double>(cpu) / 1000 / n, m_arrivals.percentile(0.5),
            m_arrivals.percentile(0.99), m_arrivals.percentile(0.999), m_records,
            (m_resident_after - m_resident_before) / static_cast<double>(m_options.bridges));
    }

    const load_options& m_options;
    arrivals m_arrivals;
    void* m_handler;
    void* m_proxy = nullptr;
    void* m_broker = nullptr;
    bridges m_bridges;
    std::vector<uint32_t> m_seq;
    message m_buffer;
    size_t m_next = 0;
    size_t m_sent = 0;
    size_t m_records = 0;
    double m_resident_before = 0;
    double m_resident_after = 0;
};

} // namespace

int main(int argc, char** argv)
{
    load_options options;
    CLI::App app{"Bridges at one end and servers at the other: load for the end-to-end benchmark"};
    app.add_option("--win-port", options.win_port)->required();
    app.add_option("--handler-port", options.handler_port)->required();
    app.add_option("--proxy-port", options.proxy_port, "where commands are published");
    app.add_option("--broker-port", options.broker_port, "where log records are taken");
    app.add_option("--pid", options.pid, "process whose processor time counts");
    app.add_option("--bridges", options.bridges)->capture_default_str();
    app.add_option("--per-write", options.per_write, "messages in a write; 0: those that are due")
        ->capture_default_str();
    app.add_option("--rate", options.rate, "messages a second over all bridges; 0: as many as get through")
        ->capture_default_str();
    app.add_option("--window", options.window, "messages under way at most")->capture_default_str();
    app.add_option("--seconds", options.seconds)->capture_default_str();
    app.add_option("--size", options.payload_size, "payload bytes of a report")
        ->check(CLI::Range(14, 280))
        ->capture_default_str();
    app.add_flag("--mixed", options.is_mixed, "reports of several kinds, in envelopes and acknowledged, too");
    app.add_flag("--relay", options.is_relay, "the subject is the bare relay");
    app.add_flag("--commands", options.are_commands, "commands down instead of reports up");
    app.add_flag("--reconnect", options.is_reconnect,
                 "time the first reports of a subject that is being started");
    CLI11_PARSE(app, argc, argv);

    load_run run(options, zmq_ctx_new());
    if (options.is_reconnect) {
        std::puts("ready");
        std::fflush(stdout);
        const auto [first, all] = run.reconnect(now_ns());
        std::printf("{\"first_s\": %.3f, \"all_s\": %.3f}\n", first, all);
        return 0;
    }
    run.connect();
    run.measure();
    return 0;
}
