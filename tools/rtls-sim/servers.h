// servers - plays what stands upstream of the gateway: message handler, pub/sub proxy with its input, and
// debug broker.
//
// All ports are bound here and the gateway connects to them, so it may come and go.
// Threads    run() is the servers' own thread and uses the sockets; the operations marked so may be called
//            from others.
// Failures   Throws std::system_error or zmq::error_t when it cannot be made.
#pragma once

#include "rtls-sim/console.h"
#include "rtls-sim/latency.h"
#include "rtls-sim/report.h"
#include "rtls-sim/tracker.h"

#include <zmq.hpp>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

namespace sim {

struct servers_options {
    std::string address = "127.0.0.1"; // to bind to; "*" for every interface
    uint16_t proxy_port = 5555;
    uint16_t proxy_input_port = 5556;
    uint16_t handler_port = 5557;
    uint16_t broker_port = 5558;
    bool broker = true;      // play the debug broker, too
    bool broker_log = false; // show its records
    bytes ota_image;         // serve its pages when the gateway hands a node's request on
};

// Loss and latency of stamped reports, by the stamps alone: works when the bridges are another process.
class stamp_watch {
public:
    void seen(const report_stamp& stamp);
    std::vector<std::string> summary() const;

private:
    struct run {
        uint64_t received = 0;
        uint64_t repeated = 0;
        uint64_t first = 0;
        uint64_t last = 0;
        std::set<uint64_t> gaps; // counters not seen yet, below `last`; bounded
    };
    std::map<uint32_t, run> m_runs;
    latency m_latency;
};

class servers {
public:
    // Throws std::system_error when a port cannot be bound. `tracker` may be null: then nothing is matched.
    servers(const servers_options& options, tracker* tracker, console& out);
    ~servers();
    servers(const servers&) = delete;
    servers& operator=(const servers&) = delete;

    void run(const std::stop_token& stop);

    // From any thread:
    // Publishes a command (its bytes) through the proxy.
    void publish(bytes command);
    // The gateway is connected to message handler and proxy input, and has subscribed to the proxy.
    bool gateway_is_here() const { return m_handler_peers > 0 && m_input_peers > 0 && m_subscribed > 0; }
    unsigned subscriptions() const { return m_subscribed; }
    uint64_t reports() const { return m_reports; }
    uint64_t lines() const { return m_lines; } // of these, at the proxy input
    uint64_t published() const { return m_published; }
    uint64_t broker_records() const { return m_broker_records; }
    // After run() has ended.
    std::vector<std::string> summary() const { return m_stamps.summary(); }

private:
    struct watched_socket;
    void bind(zmq::socket_t& socket, uint16_t port) const;
    void watch_peers(zmq::socket_t& socket, zmq::socket_t& monitor, const char* name);
    void read_handler();
    void read_proxy_input();
    void read_broker();
    void read_subscription();
    void read_monitor(zmq::socket_t& monitor, std::atomic<int>& peers, const char* name);
    void publish_queued();
    void take(outlet where, const upstream_report& report);
    void serve_page(const upstream_report& request);
    void send_command(const std::string& text);
    void wake() const;

    servers_options m_options;
    tracker* m_tracker;
    console& m_out;
    int m_wake = -1;
    zmq::context_t m_context;
    zmq::socket_t m_handler;
    zmq::socket_t m_proxy_input;
    zmq::socket_t m_broker;
    zmq::socket_t m_proxy;
    zmq::socket_t m_handler_monitor;
    zmq::socket_t m_input_monitor;
    stamp_watch m_stamps;

    std::mutex m_queue_mutex;
    std::vector<bytes> m_queue;
    std::atomic<int> m_handler_peers{0};
    std::atomic<int> m_input_peers{0};
    std::atomic<unsigned> m_subscribed{0};
    std::atomic<uint64_t> m_reports{0};
    std::atomic<uint64_t> m_lines{0};
    std::atomic<uint64_t> m_published{0};
    std::atomic<uint64_t> m_broker_records{0};
};

} // namespace sim
