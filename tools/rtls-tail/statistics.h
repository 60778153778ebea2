// statistics - rates by kind and bridge, repeats, gaps, and how old reports are.
//
// Ownership  Values. Of each node and kind it keeps a digest of the last report, of each node its last number.
// Threads    One.
// Bytes      What is told is UTF-8 without control characters, whatever nodes and gateway say.
// Failures   Of memory: std::bad_alloc, which does not grow beyond bounds: of nodes and of ages.
#pragma once

#include "rtls-tail/sequence_gaps.h"
#include "rtls-tail/viewer.h"
#include "tap/running_numbers.h"

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace tail {

class statistics {
public:
    // `now_ns`: when it came; of a recording the head's clock.
    void note(const sight& it, uint64_t now_ns);
    nlohmann::ordered_json as_json(const tap::running_numbers& numbers) const;
    // With the ends of its lines.
    std::string as_table(const tap::running_numbers& numbers) const;
    // Begins anew; which reports repeat the one before is known still.
    void reset();

private:
    struct counts {
        uint64_t messages = 0;
        uint64_t repeats = 0;
    };
    double seconds() const;
    double rate(uint64_t messages) const;
    bool is_repeat(const sight& it);
    void note_sequence(const sight& it);
    void note_age(const sight& it, uint64_t now_ns);
    // Of the ages, sorted: the one that `share` of them do not exceed, in ms.
    double age_at(double share) const;

    uint64_t m_first_ns = 0;
    uint64_t m_last_ns = 0;
    uint64_t m_messages = 0;
    std::map<std::string, counts> m_kinds; // "report heartbeat"
    std::map<std::string, counts> m_bridges;
    std::unordered_map<std::string, size_t> m_last_reports; // by node and kind
    sequence_gaps m_sequences;
    std::vector<float> m_ages_ms;
    size_t m_next_age = 0;
};

} // namespace tail
