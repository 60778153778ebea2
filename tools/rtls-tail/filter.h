// filter - which messages are wanted.
//
// Ownership  A value.
// Threads    Any.
// Failures   Of what is no filter: tap::failure, usage.
#pragma once

#include "rtls-tail/condition.h"
#include "rtls-tail/viewer.h"

#include <string>
#include <vector>

namespace tail {

// Within each list one is enough; an empty one wants all. MACs and bridges: whole, or how they end.
struct filter {
    std::vector<std::string> macs;
    std::vector<std::string> bridges;
    std::vector<std::string> kinds;
    std::vector<std::string> ways;  // "up", "down", "neither"
    std::vector<std::string> where; // conditions on fields, of which all are to hold

    // To be called once all is there, before passes().
    void settle();
    bool passes(const sight& it) const;

private:
    std::vector<condition> m_conditions; // of `where`
};

// A topic's, by its prefix; none: every topic passes.
bool passes(const std::vector<std::string>& prefixes, std::string_view topic);

} // namespace tail
