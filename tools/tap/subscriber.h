// subscriber - a gateway's tap, message by message, until somebody ends the program.
//
// Ownership  Owns its socket, and SIGINT and SIGTERM: they no longer end the process, but are told by next().
// Threads    The main thread makes it before there are others, and uses it.
// Blocking   next(), as long as it is told.
// Failures   An endpoint that is none, and certificates: failure, usage. No descriptor for signals: std::system_error.
//            No descriptor for a socket, and no memory: std::bad_alloc.
//            A tap that is not there, refuses our keys or goes, is waited for; notes say so.
#pragma once

#include "common/end_signals.h"
#include "recording/tap_message.h"
#include "tap/certificates.h"

#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace tap {

struct subscription {
    std::string endpoint;            // "tcp://127.0.0.1:5559"
    std::vector<std::string> topics; // prefixes; none: everything
    double patience = 0;             // seconds to wait for somebody to answer; 0: for ever
    certificate_files certificates;  // of a tap that is encrypted
};

enum class arrival { message, nothing, stopped, nobody };

// What a program waits for beside the tap, as poll(2) does.
struct other_descriptor {
    int fd = -1;
    short events = 0;
};

class subscriber {
public:
    using note_function = std::function<void(const std::string&)>;
    subscriber(const subscription& wanted, note_function note);
    ~subscriber();
    subscriber(const subscriber&) = delete;
    subscriber& operator=(const subscriber&) = delete;

    // The next message; `nothing` within the time, or when one of `others` is ready before; `stopped` once a signal
    // has come; `nobody` when patience has ended before anybody answered.
    arrival next(rtls::recording::tap_message& message, std::chrono::milliseconds within,
                 std::span<const other_descriptor> others = {});
    // Whether the tap has ever answered, and whether it is there.
    bool was_linked() const { return m_was_linked; }
    bool is_linked() const { return m_is_linked; }
    // A sentence for `nobody`: who is not there, or does not let us in.
    std::string why_nobody() const;
    // Messages that were none of a tap.
    uint64_t not_understood() const { return m_not_understood; }

private:
    using clock = std::chrono::steady_clock;
    struct sockets;

    bool take(rtls::recording::tap_message& message);
    void watch_link();
    void note_event(int what);
    std::chrono::milliseconds until_notice(std::chrono::milliseconds within) const;
    bool has_given_up();

    subscription m_wanted;
    note_function m_note;
    tools::end_signals m_signals;
    std::unique_ptr<sockets> m_sockets;
    clock::time_point m_began = clock::now();
    bool m_was_linked = false;
    bool m_is_linked = false;
    bool m_said_nobody = false;
    bool m_was_refused = false;
    uint64_t m_not_understood = 0;
};

} // namespace tap
