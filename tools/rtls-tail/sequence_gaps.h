// sequence_gaps - what is missing in the sequence numbers of nodes, one byte each, out of the reports.
//
// Ownership  A value; of each node it keeps the last number.
// Threads    One.
// Failures   Of memory: std::bad_alloc. Beyond half a million nodes all are forgotten.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace tail {

class sequence_gaps {
public:
    struct counts {
        uint64_t gaps = 0;    // between two reports of a node
        uint64_t missing = 0; // numbers in them: at most half of the 256, as what is farther is behind
        uint64_t repeats = 0; // the number of the one before
        uint64_t late = 0;    // up to 16 behind: it was overtaken, or a copy of it came
        uint64_t resets = 0;  // farther behind: the node counts anew
    };

    void note(const std::string& node, uint8_t number);
    const counts& found() const { return m_counts; }
    // Counts from 0 again; the nodes' last numbers are known still.
    void reset() { m_counts = {}; }

private:
    std::unordered_map<std::string, uint8_t> m_last;
    counts m_counts;
};

} // namespace tail
