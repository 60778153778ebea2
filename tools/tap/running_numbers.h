// running_numbers - what is missing in the running numbers of the tap's classes.
//
// Ownership  A value.
// Threads    One.
// Failures   Of memory: std::bad_alloc. Numbers may be anything: what is missing is a difference, never a loop.
#pragma once

#include "recording/tap_message.h"

#include <array>
#include <string>
#include <vector>

namespace tap {

class running_numbers {
public:
    // `topics`: the prefixes that are subscribed to; empty: everything. Of a class that is taken in part nothing can
    // be said.
    explicit running_numbers(const std::vector<std::string>& topics);

    struct step {
        uint64_t missed = 0;        // between the one before and this one
        bool has_restarted = false; // the gateway has: it counts from 1 again
    };
    step note(rtls::recording::message_class of, uint64_t number);
    // All of a class so far.
    uint64_t missed(rtls::recording::message_class of) const;
    uint64_t missed() const;

private:
    struct of_class {
        bool is_whole = true;
        uint64_t last = 0;
        uint64_t missed = 0;
    };
    std::array<of_class, rtls::recording::class_count> m_classes;
};

// "report: 3 messages are missing before number 17", or that it counts anew; empty when all is well.
std::string sentence_of(const running_numbers::step& step, const rtls::recording::tap_message& message);

} // namespace tap
