// comparison - the reports that a gateway hands over, against those that it handed over when it was recorded.
//
// Reports of one node are compared in their order, byte for byte; between nodes there is no order, as there is none
// between connections. The time in front is the gateway's own, and not compared.
// Ownership  Owns the socket where it stands as the message handler.
// Threads    One.
// Blocking   Nothing waits.
// Failures   An endpoint that cannot be bound: tap::failure.
#pragma once

#include "tap/zmq_handles.h"

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace replay {

class comparison {
public:
    using frames = std::vector<std::vector<uint8_t>>;

    void expect(const frames& report);
    void arrived(const frames& report);

    uint64_t expected() const { return m_expected; }
    uint64_t equal() const { return m_equal; }
    // What was recorded and has not come; of a node that differs nothing more is waited for.
    uint64_t missing() const;
    // Nothing differs, is missing, or has come beyond.
    bool is_same() const;
    // The first difference, in a sentence; empty when there is none.
    std::string first_difference() const;

private:
    struct of_node {
        std::deque<std::vector<uint8_t>> expected;
        std::deque<std::vector<uint8_t>> arrived;
        uint64_t equal = 0;
        bool differs = false;
    };
    void compare(const std::string& node, of_node& it);

    std::unordered_map<std::string, of_node> m_nodes;
    uint64_t m_expected = 0;
    uint64_t m_equal = 0;
    std::string m_first;
};

// Stands where the message handler stands.
class report_inbox {
public:
    explicit report_inbox(const std::string& endpoint);
    // Gives all that has come to `to`; whether there was any.
    bool drain(comparison& to);

private:
    tap::context_ptr m_context;
    tap::socket_ptr m_socket;
};

} // namespace replay
