// load_bridges - the connections of the end-to-end benchmark's bridges.
//
// Ownership  Closes its connections.
// Threads    One.
// Blocking   write() waits for room in TCP, take() as long as it is told to, connect_until_there() without a bound.
// Failures   What cannot be connected or written ends the program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace rtls::load {

class bridges {
public:
    using taker = std::function<void(std::span<const uint8_t>)>;

    bridges() = default;
    ~bridges();
    bridges(const bridges&) = delete;
    bridges& operator=(const bridges&) = delete;

    void connect(uint16_t port, size_t number);
    // Again and again, until somebody accepts all of them.
    void connect_until_there(uint16_t port, size_t number);
    void write(size_t bridge, const std::vector<uint8_t>& bytes);
    // Takes the messages that have arrived; waits at most `timeout_ms` for the first.
    void take(int timeout_ms, const taker& with);
    // Reads what the subject has said to a bridge, and does nothing with it.
    void overlook_answers(size_t bridge);

private:
    struct connection {
        int descriptor;
        std::vector<uint8_t> message; // that has begun
        bool is_inside = false;
        bool is_escaped = false;
    };

    static void unstuff(connection& from, std::span<const uint8_t> bytes, const taker& with);
    void add(int descriptor);

    int m_waiting = -1; // epoll's
    std::vector<connection> m_connections;
};

} // namespace rtls::load
