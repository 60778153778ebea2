// log_capture - sets up the daemon's loggers for one test and reads every record they write.
//
// Plays the debug broker, so it sees debug records whatever debug_mask says, without escape sequences
// and never cut. Each record is handed out once: what a call returns is gone afterwards.
// Threads    The test's own thread; records of other threads are seen, too.
// Failures   Throws std::runtime_error when records do not arrive in time.
#pragma once

#include "support/wait.h"

#include <zmq.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace rtls {

class log_capture {
public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    // Whether a record that contains the text is there, or comes within the time. Takes nothing.
    bool wait_for(std::string_view text_part, std::chrono::milliseconds time = patience);

    // Every record written so far, whole: "&rtls-gateway:main 2024-05-01 13:07:02.045 Exiting".
    std::vector<std::string> take();

    // The messages alone that one component ("main", or a debug section) has written so far. Leaves
    // the records of the others.
    std::vector<std::string> messages(std::string_view component);

    // Where the broker listens, for more loggers to connect to.
    const std::string& endpoint() const { return m_endpoint; }

private:
    bool receive(std::chrono::milliseconds time);
    void synchronise();

    zmq::context_t m_context;
    zmq::socket_t m_broker;
    std::string m_endpoint;
    std::vector<std::string> m_records; // not taken yet
    unsigned m_last_marker = 0;
};

} // namespace rtls
