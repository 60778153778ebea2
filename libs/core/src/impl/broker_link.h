// broker_link - the socket towards the debug brokers, which is watched and mended like the links of a daemon
// (core/link_record.h).
//
// Ownership  Owns the socket and the one that tells of it; borrows the context.
// Threads    One at a time: the logger's mutex guards it. state(): any.
// Blocking   Nothing waits; closing leaves what is unsent to the context's end, for at most five seconds.
// Failures   Constructor and connect() throw zmq::error_t or std::bad_alloc.
#pragma once

#include "core/link_record.h"
#include "core/tcp_silence.h"
#include "core/unsent_count.h"

#include <zmq.hpp>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tav::libs::core {

class broker_link {
public:
    using clock = std::chrono::steady_clock;

    explicit broker_link(zmq::context_t& context);

    // Connections made from now on are encrypted (CurveZMQ); keys in Z85.
    void secure(const char* server_key, const char* own_public, const char* own_secret);

    // Connects one more broker.
    void connect(const std::string& address);
    void close();

    // How many records went with a connection that was given up, since the last call.
    uint64_t take_lost() noexcept { return std::exchange(m_lost, 0); }

    // Sends one record, if it can go at once. Throws zmq::error_t.
    bool send(std::string_view record);

    // Takes in what has happened to the connections, and connects again those that the library has given up.
    // Does not throw. Why a broker is connected again, if that is to be said, or null.
    const char* tend(clock::time_point now) noexcept;

    rtls::link_state state() const noexcept { return m_record.state(); }

private:
    void watch();
    const char* note(const zmq::message_t& event);
    bool sample(clock::time_point now) noexcept; // whether the broker's connection was cut
    void mend();

    zmq::context_t& m_context;
    zmq::socket_t m_socket;
    zmq::socket_t m_events; // what the library tells of the other; from the first connect() on
    std::vector<std::string> m_addresses;
    rtls::link_record m_record;  // of all brokers together: there is one
    rtls::tcp_silence m_silence; // of the last broker that was reached
    rtls::unsent_count m_unsent;
    uint64_t m_lost = 0;
    clock::time_point m_sampled_at{};
    clock::time_point m_given_up_at{};
    bool m_is_planned = false;
};

} // namespace tav::libs::core
