// load_generator - bridges that report at a chosen rate, and the message handler that counts and times
// what comes out at the other end.
//
//   load_generator --win-port P --handler-port P --pid PID [--bridges N] [--rate R] [--window W]
//                  [--seconds S] [--size BYTES]
//
// Sends direct sensor reports. With --rate 0 it keeps `window` reports under way and so finds the
// highest throughput at which none is lost. Prints one JSON object; the processor time is that of all
// threads of PID during the measured time.
#include "base/bytes.h"
#include "wire/messaging.h"
#include "wire/slip.h"

#include <CLI/CLI.hpp>
#include <zmq.h>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
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

namespace {

using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct load_options {
    uint16_t win_port = 0;
    uint16_t handler_port = 0;
    int pid = 0;
    size_t bridges = 50;
    double rate = 20000;
    size_t window = 300; // queues of 1,000 free up by halves: beyond 500 a report may be lost
    double seconds = 5;
    uint16_t payload_size = 24;
};

constexpr std::array<uint8_t, 8> bridge_mac(size_t bridge)
{
    return {
        0x02, 0xAB, 0x34, 0xCD, 0x57, 0x00, static_cast<uint8_t>(bridge >> 8), static_cast<uint8_t>(bridge)};
}

constexpr std::array<uint8_t, 16> bridge_ip(size_t bridge)
{
    return {0xFD,
            0,
            0,
            0,
            0,
            0,
            0,
            0,
            0x11,
            0x22,
            0x33,
            0x44,
            0x55,
            0,
            static_cast<uint8_t>(bridge >> 8),
            static_cast<uint8_t>(bridge)};
}

uint64_t now_ns()
{
    return static_cast<uint64_t>(clock_type::now().time_since_epoch().count());
}

std::vector<uint8_t> framed(bytes_view message)
{
    std::vector<uint8_t> out(slip_encoded_limit(message.size()));
    out.resize(slip_encode(message, out.data()));
    return out;
}

std::vector<uint8_t> heartbeat(size_t bridge)
{
    using hb = gwMsgHeartbeat_t;
    std::vector<uint8_t> m(hb::size);
    store_le16(m, hb::header, MSG_HEARTBEAT_IND);
    m[2] = 1;
    m[hb::reporting_freq] = 255;
    m[hb::node_role] = NR_BRIDGE;
    store_bytes(m, hb::long_addr, bridge_mac(bridge));
    store_bytes(m, hb::bridge_mac, bridge_mac(bridge));
    store_bytes(m, hb::ipaddr, bridge_ip(bridge));
    return framed(m);
}

// A sensor report whose payload opens with the time of sending.
void append_report(std::vector<uint8_t>& out, size_t bridge, uint8_t seq, const load_options& options)
{
    std::vector<uint8_t> m(msgHeader_t::size + options.payload_size + 16U, 0x5A);
    store_le16(m, msgHeader_t::msgType, MSG_SENSOR_IND_NEW);
    m[msgHeader_t::seqNo] = seq;
    store_le16(m, msgHeader_t::total_len, options.payload_size);
    const uint64_t stamp = now_ns();
    store_be32(m, 5, static_cast<uint32_t>(stamp >> 32));
    store_be32(m, 9, static_cast<uint32_t>(stamp));
    store_bytes(m, msgHeader_t::size + options.payload_size, bridge_ip(bridge));
    const size_t at = out.size();
    out.resize(at + slip_encoded_limit(m.size()));
    out.resize(at + slip_encode(m, out.data() + at));
}

int connect_bridge(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets interface
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

void write_all(int fd, const std::vector<uint8_t>& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            std::perror("write");
            std::exit(1);
        }
        done += static_cast<size_t>(n);
    }
}

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

struct frame_receiver {
    void* socket = nullptr;
    size_t received = 0; // sensor reports
    std::vector<uint32_t> latencies_us;

    // Takes what has arrived; waits at most `timeout_ms` for the first.
    void take(int timeout_ms)
    {
        zmq_pollitem_t item{socket, 0, ZMQ_POLLIN, 0};
        if (zmq_poll(&item, 1, timeout_ms) <= 0)
            return;
        std::array<uint8_t, 512> bytes{};
        while (zmq_recv(socket, bytes.data(), bytes.size(), ZMQ_DONTWAIT) >= 0) {
            const int size = zmq_recv(socket, bytes.data(), bytes.size(), 0);
            if (size >= 13 && (bytes[0] == 0x16 || bytes[1] == 0x16)) { // little-endian from the relay
                const uint64_t sent = uint64_t{load_be32(bytes, 5)} << 32 | load_be32(bytes, 9);
                latencies_us.push_back(static_cast<uint32_t>((now_ns() - sent) / 1000));
                ++received;
            }
        }
    }
};

double percentile(std::vector<uint32_t>& sorted, double p)
{
    return sorted.empty() ? 0
                          : sorted[std::min(sorted.size() - 1,
                                            static_cast<size_t>(p * static_cast<double>(sorted.size())))];
}

class bridge_load {
public:
    bridge_load(const load_options& options, frame_receiver& receiver)
        : m_options(options), m_receiver(receiver)
    {
        for (size_t i = 0; i < options.bridges; ++i)
            m_bridges.push_back(connect_bridge(options.win_port));
        wait_for_sync();
        for (size_t i = 0; i < m_bridges.size(); ++i)
            write_all(m_bridges[i], heartbeat(i));
    }

    ~bridge_load()
    {
        for (int fd : m_bridges)
            close(fd);
    }
    bridge_load(const bridge_load&) = delete;
    bridge_load& operator=(const bridge_load&) = delete;

    // Sends and receives for `seconds`, then waits for the stragglers.
    void run(double seconds)
    {
        const auto begin = clock_type::now();
        const size_t base = m_sent;
        for (;;) {
            const double elapsed = std::chrono::duration<double>(clock_type::now() - begin).count();
            if (elapsed >= seconds)
                break;
            const size_t due = m_options.rate > 0 ? base + static_cast<size_t>(elapsed * m_options.rate)
                                                  : m_receiver.received + m_options.window;
            send_until(std::min(due, m_receiver.received + m_options.window));
            m_receiver.take(1);
        }
        for (const auto end = clock_type::now() + 2s;
             m_receiver.received < m_sent && clock_type::now() < end;)
            m_receiver.take(10);
    }

    [[nodiscard]] size_t sent() const { return m_sent; }

private:
    // The bare relay says nothing on connect; the gateway says "sync\n". Either way, be connected.
    void wait_for_sync()
    {
        std::array<char, 16> buffer{};
        for (int fd : m_bridges) {
            pollfd item{fd, POLLIN, 0};
            if (poll(&item, 1, 50) == 1 && read(fd, buffer.data(), buffer.size()) < 0)
                std::perror("read");
        }
    }

    // Deals the reports that are due out among the bridges, each bridge's in one write.
    void send_until(size_t due)
    {
        while (m_sent < due) {
            const size_t share = std::max<size_t>(1, (due - m_sent) / m_bridges.size());
            m_buffer.clear();
            for (size_t i = 0; i < share; ++i)
                append_report(m_buffer, m_next, static_cast<uint8_t>(++m_sent), m_options);
            write_all(m_bridges[m_next], m_buffer);
            m_next = (m_next + 1) % m_bridges.size();
        }
    }

    const load_options& m_options;
    frame_receiver& m_receiver;
    std::vector<int> m_bridges;
    std::vector<uint8_t> m_buffer;
    size_t m_next = 0;
    size_t m_sent = 0;
};

void report(const load_options& options, frame_receiver& receiver, size_t sent, double seconds, uint64_t cpu)
{
    auto& l = receiver.latencies_us;
    std::sort(l.begin(), l.end());
    const auto n = static_cast<double>(std::max<size_t>(receiver.received, 1));
    std::printf(
        "{\"bridges\": %zu, \"sent\": %zu, \"received\": %zu, \"lost\": %zu, \"reports_per_s\": %.0f, "
        "\"cpu_us_per_report\": %.3f, \"p50_us\": %.0f, \"p99_us\": %.0f, \"p99_9_us\": %.0f}\n",
        options.bridges, sent, receiver.received, sent - receiver.received, n / seconds,
        static_cast<double>(cpu) / 1000 / n, percentile(l, 0.5), percentile(l, 0.99), percentile(l, 0.999));
}

} // namespace

int main(int argc, char** argv)
{
    load_options options;
    CLI::App app{"Bridges in, message handler out: load for the end-to-end benchmark"};
    app.add_option("--win-port", options.win_port)->required();
    app.add_option("--handler-port", options.handler_port)->required();
    app.add_option("--pid", options.pid, "process whose processor time counts")->required();
    app.add_option("--bridges", options.bridges)->capture_default_str();
    app.add_option("--rate", options.rate, "reports a second over all bridges; 0: as many as get through")
        ->capture_default_str();
    app.add_option("--window", options.window, "reports under way at most")->capture_default_str();
    app.add_option("--seconds", options.seconds)->capture_default_str();
    app.add_option("--size", options.payload_size, "payload bytes of a report")
        ->check(CLI::Range(8, 280))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    void* context = zmq_ctx_new();
    frame_receiver receiver;
    receiver.socket = zmq_socket(context, ZMQ_PULL);
    const int unlimited = 0;
    zmq_setsockopt(receiver.socket, ZMQ_RCVHWM, &unlimited, sizeof unlimited);
    if (zmq_bind(receiver.socket, ("tcp://127.0.0.1:" + std::to_string(options.handler_port)).c_str()) != 0) {
        std::perror("bind");
        return 1;
    }
    bridge_load load(options, receiver);
    load.run(0.5); // warm up: connections settle, the registry knows the nodes
    receiver.latencies_us.clear();
    const size_t sent_before = load.sent();
    receiver.received = sent_before;

    const uint64_t cpu_before = cpu_ns(options.pid);
    const auto begin = clock_type::now();
    load.run(options.seconds);
    const double seconds = std::chrono::duration<double>(clock_type::now() - begin).count();
    const uint64_t cpu = cpu_ns(options.pid) - cpu_before;
    receiver.received -= sent_before;
    report(options, receiver, load.sent() - sent_before, seconds, cpu);
    return 0;
}
