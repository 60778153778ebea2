// field - the simulated radio network: bridges connected to the gateway, and the nodes behind them.
//
// Threads    run() is the field's own thread: one epoll loop over all bridges. The operations marked so may
//            be called from others; everything else belongs to that thread.
// Failures   Throws std::system_error when it cannot be made. A bridge that loses the gateway says so on the
//            console, and connects again a second later.
#pragma once

#include "rtls-sim/bridge_link.h"
#include "rtls-sim/console.h"
#include "rtls-sim/device.h"
#include "rtls-sim/downlink.h"
#include "rtls-sim/ota_fetch.h"
#include "rtls-sim/tracker.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <vector>

namespace sim {

struct field_options {
    std::string host = "127.0.0.1";
    uint16_t win_port = 4001;
    bool discover = false; // ask for the gateway's address instead
    std::string discovery_address = "127.0.0.1";
    uint16_t discovery_port = 4002;
    unsigned bridges = 2;
    unsigned nodes = 8; // behind each bridge
    double rate = 5;    // reports per second, all together
    uint64_t seed = 1;
    unsigned forwarded_percent = 50;
    unsigned timestamp_percent = 30; // sent with a time of their own
    unsigned ack_percent = 20;       // that ask for an acknowledgement
    double churn = 0;                // seconds until the next bridge goes, and comes again; 0: none does
    uint16_t ota_page_size = 512;
    bytes ota_image; // compared with what nodes fetch, when it has the same CRC
};

struct field_state {
    unsigned bridges_joined = 0;
    unsigned nodes_introduced = 0;
    uint64_t connections = 0;   // that were greeted
    uint64_t messages_up = 0;   // that bridges sent
    uint64_t messages_down = 0; // that they got
};

class field {
public:
    field(const field_options& options, tracker& tracker, console& out);
    ~field();
    field(const field&) = delete;
    field& operator=(const field&) = delete;

    void run(const std::stop_token& stop);

    // From any thread:
    // Bridges connect from now on: before, the servers may not be there to receive what they report.
    void let_bridges_connect() { m_may_connect = true; }
    // Reports flow (or not), once a bridge has joined and introduced its nodes.
    void let_reports_flow(bool flow) { m_reports_flow = flow; }
    // Every bridge has joined and is to stay, and every node was introduced.
    bool is_complete() const;
    field_state state() const;
    uint64_t reports_made() const { return m_made.load(); }
    // A node starts to fetch an image. Answered on the console.
    void start_ota(const mac_bytes& node, const ota_order& order, uint16_t page_size);
    // One line per device, on the console.
    void list_devices();
    // Reports whether any OTA fetch is under way, and how many ended well or badly.
    struct ota_counts {
        unsigned running = 0;
        unsigned succeeded = 0;
        unsigned failed = 0;
    };
    ota_counts ota() const { return {m_ota_running.load(), m_ota_succeeded.load(), m_ota_failed.load()}; }

private:
    struct bridge {
        unsigned number = 0;
        device self;
        std::vector<device> nodes;
        bridge_link link;
        uint32_t watched = 0; // epoll events asked for
        bool asked = false;   // for the RPL prefix
        bool joined = false;  // has been told it
        bool leaving = false; // goes as soon as everything it sent was answered
        bool pinged_last = false;
        uint16_t prefix = 0;
        uint8_t version = 0;
        steady::time_point connect_at{};     // next attempt
        steady::time_point give_up_at{};     // greeting, prefix: not for ever
        steady::time_point next_heartbeat{}; // keeps the connection wanted
        std::unordered_multimap<std::string, steady::time_point>
            acks;                                                  // awaited, by sequence number and address
        std::unordered_map<std::string, steady::time_point> pings; // awaited, by frame
    };
    struct fetch {
        ota_fetch state;
        size_t told = 0; // pages, at the last progress line
    };

    void open_poll();
    void build_bridges();
    void wake() const;
    void post(std::function<void()> job);
    void run_jobs();
    int wait_time_ms() const;
    void handle_events(int timeout_ms);

    void tend_bridges();
    void tend_bridge(bridge& b, steady::time_point now);
    void send_one_away(steady::time_point now);
    void leave(bridge& b);
    void connect(bridge& b);
    void tell_absence(const char* why);
    void disconnect(bridge& b, const char* why);
    void watch(bridge& b);
    void ask_prefix(bridge& b);
    void join(bridge& b, const downlink_message& message);

    void introduce_nodes();
    void introduce(device& d);
    void make_due_reports();
    bool make_report();
    bool is_ready(const device& d) const;
    static bool takes_reports(const bridge& b);
    void send_kind(kind k, device& d);
    void send_ping(bridge& b);
    void send(device& d, const uplink_message& message, bridge& via, bool foreign, bool optional);
    void queue(bridge& b, view message);
    void flush_links();

    void received(bridge& b, view message);
    void received_ack(bridge& b, const downlink_message& message);
    void received_echo(bridge& b, view message);
    void received_command(bridge& b, const downlink_message& message);
    void obey_generic(device& d, view payload);
    void obey_config(device& d, const downlink_message& message);
    void restart(device& d, const char* why);
    void tend_fetches();
    void begin_fetch(device& d, const ota_order& order, uint16_t page_size);
    void end_fetch(device& d, const fetch& ended);
    device* find(const mac_bytes& mac);
    device* addressed(const downlink_message& message);
    bridge& bridge_of(const device& d) { return *m_bridges[d.bridge - 1]; }

    field_options m_options;
    tracker& m_tracker;
    console& m_out;
    report_maker m_maker;
    sockaddr_in m_gateway{};
    bool m_absence_told = false;
    bool m_gateway_known = false;
    steady::time_point m_discover_at{};
    int m_poll = -1;
    int m_wake = -1;
    std::vector<std::unique_ptr<bridge>> m_bridges;
    std::vector<bridge*> m_to_flush; // have something to write since the last turn
    std::vector<device*> m_devices;  // all, bridges included, in the order in which they report
    std::unordered_map<std::string, device*> m_by_ip;
    size_t m_next_device = 0;
    std::deque<device*> m_to_introduce;
    std::unordered_map<device*, fetch> m_fetches;
    std::unordered_map<device*, uint32_t> m_fetched; // git ids of complete images, to be applied
    double m_due = 0;                                // reports, in fractions
    steady::time_point m_counted_at{};
    steady::time_point m_introduced_at{};
    steady::time_point m_tended_at{};
    steady::time_point m_churned_at{};
    size_t m_next_to_leave = 0;

    std::mutex m_jobs_mutex;
    std::vector<std::function<void()>> m_jobs;
    std::atomic<bool> m_may_connect{false};
    std::atomic<bool> m_reports_flow{false};
    std::atomic<unsigned> m_joined{0};
    std::atomic<unsigned> m_introduced{0};
    std::atomic<unsigned> m_leaving{0};
    std::atomic<uint64_t> m_connections{0};
    std::atomic<uint64_t> m_messages_up{0};
    std::atomic<uint64_t> m_messages_down{0};
    std::atomic<uint64_t> m_made{0};
    std::atomic<unsigned> m_ota_running{0};
    std::atomic<unsigned> m_ota_succeeded{0};
    std::atomic<unsigned> m_ota_failed{0};
};

} // namespace sim
