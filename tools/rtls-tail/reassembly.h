// reassembly - the bytes of one direction of a TCP connection in their order, out of captured segments.
//
// What comes again is dropped; what comes too early waits for what is missing. That is given up when five seconds of the
// capture, or a mebibyte, have come behind it; and at the end. A sequence number that is farther away than any window
// begins anew: the capture did not see how another connection with the same ends began.
// Ownership  Owns the bytes that wait.
// Threads    One.
// Failures   Of memory: std::bad_alloc, with a mebibyte and a segment at most.
#pragma once

#include "base/bytes.h"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace tail {

class reassembly {
public:
    struct piece {
        uint64_t clock_ns = 0; // of its segment
        std::vector<uint8_t> bytes;
        uint64_t missing = 0;     // bytes in front of it that nobody has seen
        bool follows_gap = false; // ... or nobody knows how many
    };

    // The connection begins: its first byte has this number. The same once more changes nothing.
    void begin(uint32_t sequence);
    bool has_begun_with(uint32_t sequence) const { return m_first == sequence; }
    // What is in order with this.
    std::vector<piece> add(uint32_t sequence, uint64_t clock_ns, rtls::bytes_view bytes);
    // All that still waits.
    std::vector<piece> give_up();

private:
    void keep(uint64_t at, uint64_t clock_ns, rtls::bytes_view bytes);
    void take_ready(std::vector<piece>& ready);
    void skip_gap();
    bool waits_too_long(uint64_t clock_ns) const;

    std::optional<uint32_t> m_first;     // of the beginning
    std::optional<uint32_t> m_next;      // sequence number of the byte at m_at
    uint64_t m_at = 0;                   // how many bytes have been taken or skipped
    std::map<uint64_t, piece> m_waiting; // by where they stand
    size_t m_waiting_bytes = 0;
    uint64_t m_missing = 0;
    bool m_follows_gap = false;
};

} // namespace tail
