// device - a simulated node or bridge, and the reports that its role makes it send.
//
// Threads    A device and a maker belong to one thread at a time. Nothing fails.
#pragma once

#include "rtls-sim/uplink.h"

#include <chrono>
#include <random>

namespace sim {

using steady = std::chrono::steady_clock;

struct device {
    unsigned bridge = 0; // number of the bridge it is behind, or is, from 1
    unsigned node = 0;   // from 1; 0 is the bridge itself
    vital_signs signs;
    ip_bytes ip{};
    bool forwarded = false;   // behind another node: its messages come in envelopes
    bool direct_mask = false; // marks those envelopes
    uint8_t seq = 0;
    uint16_t samples = 0; // UL-TDOA packets so far
    bool introduced = false;
    steady::time_point next_heartbeat{};
    steady::time_point silent_until{}; // while it restarts

    bool is_bridge() const { return node == 0; }
    // Sequence numbers never repeat in a row, and skip 0: the gateway takes a repeat for a duplicate, and
    // 0 is what it assumes of a node it has just met.
    uint8_t next_seq();
};

// Device `node` of bridge `bridge`; its role follows from its number, so that every bridge with six nodes
// or more has all of them. `forwarded_percent` of the nodes are forwarded.
device make_device(unsigned bridge, unsigned node, unsigned forwarded_percent, std::mt19937_64& random);

// Makes reports. Everything random in them follows from the seed.
class report_maker {
public:
    report_maker(uint64_t seed, uint32_t run) : m_random(seed), m_run(run) {}

    // What a device of this role may report next.
    kind choose(const device& from);
    // `via` is the bridge through which a heartbeat goes. Not for bridges' pings and prefix requests.
    uplink_message make(kind k, device& from, const mac_bytes& via, uint16_t prefix, uint8_t version);
    uplink_message make_ping_of(device& bridge);

    // True for `percent` of all calls.
    bool chance(unsigned percent);
    // A number in [0, limit).
    uint64_t below(uint64_t limit);
    std::mt19937_64& random() { return m_random; }

private:
    bytes noise(size_t size);
    report_stamp next_stamp();
    uplink_message make_sensor_of(device& from);
    uplink_message make_ranges_of(device& from);
    uplink_message make_ul_tdoa_of(device& from);
    uplink_message make_route_of(device& from);
    uplink_message make_generic_of(device& from);

    std::mt19937_64 m_random;
    uint32_t m_run;
    uint64_t m_stamps = 0;
};

} // namespace sim
