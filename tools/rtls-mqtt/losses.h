// losses - messages that did not get from the tap to the broker, by where they were lost.
//
// Ownership  A value.
// Threads    Any; pure.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include <cstdint>
#include <string>

namespace mqtt {

struct losses {
    uint64_t tap = 0;            // missing by the tap's running numbers
    uint64_t not_understood = 0; // messages that were none of a tap, and reports whose topic names no node
    uint64_t queue = 0;          // given up because too many waited for the broker
    uint64_t cut_off =
        0; // under way when a connection with the broker ended (QoS 0), or refused by the library

    bool operator==(const losses&) const = default;
    uint64_t sum() const { return tap + not_understood + queue + cut_off; }
};

// {"tap":0,...,"since":"2026-..."}
std::string json_of(const losses& lost, const std::string& since);

} // namespace mqtt
