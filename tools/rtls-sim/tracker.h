// tracker - which reports were sent, which have arrived upstream, and how long they took.
//
// A report is known by its whole content: it has arrived only when every byte that the servers are to see
// is right.
// Threads    All operations may be called from any thread.
// Failures   None of its own: what is lost, repeated or wrong is what it counts.
#pragma once

#include "rtls-sim/latency.h"
#include "rtls-sim/report.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace sim {

using steady = std::chrono::steady_clock;

struct sent_report {
    sim::kind kind;
    mac_bytes from;
    uint8_t seq;
    outlet to;
    std::string content;
    std::optional<report_time> time; // what it has to be stamped with, if it was sent with a time of its own
    bool optional = false;           // may be dropped on its way: it only introduces a node
};

struct kind_counts {
    uint64_t sent = 0;
    uint64_t received = 0;
};

struct tally {
    std::array<kind_counts, kinds> by_kind{};
    uint64_t sent = 0;       // reports that have to arrive
    uint64_t received = 0;   // of those
    uint64_t in_flight = 0;  // sent, not arrived, not given up
    uint64_t lost = 0;       // given up
    uint64_t unexpected = 0; // arrived, but never sent so, or not this often
    uint64_t wrong_time = 0; // arrived, but stamped with a time that cannot be
    uint64_t acks_wanted = 0;
    uint64_t acks = 0;
    uint64_t acks_unexpected = 0;
    uint64_t pings = 0;
    uint64_t echoes = 0;
    uint64_t echoes_unexpected = 0;
    uint64_t commands_wanted = 0; // published, and awaited at a node
    uint64_t commands = 0;
    uint64_t stalled = 0; // reports not sent, because the gateway did not read
    uint64_t waiting() const
    {
        return in_flight + (acks_wanted - acks) + (pings - echoes) + (commands_wanted - commands);
    }
};

class tracker {
public:
    // Nobody watches the servers' side (bridges in a process of their own): counts what is sent only.
    void count_only() { m_count_only = true; }

    // Announce a report before its bytes leave.
    void sent(sent_report report);
    void sent_ping();
    void wanted_ack();
    void stalled(uint64_t reports);

    enum class verdict { expected, wrong_time, unexpected, unserved_page };
    verdict arrived(outlet where, const upstream_report& report);
    void echoed(bool expected, std::chrono::nanoseconds round_trip);
    // A command that has to reach its node with exactly this payload; and one that has: true if it was
    // awaited.
    void wanted_command(const mac_bytes& node, msg type, view payload);
    bool command_arrived(const mac_bytes& node, uint16_t type, view payload);
    void acked(bool expected, std::chrono::nanoseconds round_trip);

    // Gives up what has been under way for longer than `age`.
    void give_up(std::chrono::seconds age);

    tally counts() const;
    // What is still missing, as lines; at most `limit`.
    std::vector<std::string> missing(size_t limit) const;
    // The summary's lines.
    std::vector<std::string> summary() const;

private:
    struct entry {
        sent_report report;
        steady::time_point sent_at;
        uint64_t sent_wall_ns;
    };
    bool time_is_right(const entry& sent, const report_time& time) const;

    mutable std::mutex m_mutex;
    bool m_count_only = false;
    std::unordered_multimap<std::string, entry> m_under_way;             // by content
    std::unordered_multimap<std::string, steady::time_point> m_commands; // by node, type and payload
    tally m_tally;
    latency m_reports;
    latency m_acks;
    latency m_pings;
    latency m_command_times;
};

} // namespace sim
