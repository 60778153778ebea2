// connection - one client of the HTTP port: what he has sent, what he is to get, and how long he may take.
//
// reading -> answering (the pool has his request) -> writing -> reading, or farewell and the end.
// Ownership  Owns the descriptor.
// Threads    The door's.
// Blocking   Nothing waits.
// Failures   A connection that fails ends, which nobody is told. std::bad_alloc.
#pragma once

#include "base/unique_fd.h"
#include "http/http_door.h"
#include "http/responder.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace rtls {

constexpr int64_t no_deadline = std::numeric_limits<int64_t>::max();

class connection {
public:
    connection(unique_fd fd, uint64_t number, const http_times& times, int64_t now_ms)
        : m_fd(std::move(fd)), m_number(number), m_times(times), m_deadline(now_ms + times.head_ms)
    {
    }

    int fd() const { return m_fd.get(); }
    uint64_t number() const { return m_number; }
    short events() const; // to poll for
    int64_t deadline() const { return m_deadline; }
    bool is_late(int64_t now_ms) const { return now_ms >= m_deadline; }
    bool is_waiting() const { return m_phase == phase::answering; }
    bool has_ended() const { return m_phase == phase::ended; }

    // Reads, writes or gives up, as the time and the phase are. The head of a request, when one is complete.
    std::optional<std::string> serve(int64_t now_ms);

    // Why the last serve() has refused him something, if it has; once.
    std::optional<http_refusal> take_refusal() { return std::exchange(m_refused, std::nullopt); }

    // The answer to the head that serve() gave out.
    void answer(http_answer answer, int64_t now_ms);

private:
    enum class phase { reading, answering, writing, farewell, ended };

    void end_late();
    void read();
    void write(int64_t now_ms);
    void drain();
    void go_on(int64_t now_ms);
    void begin_to_write(std::string bytes, bool keeps_open, int64_t now_ms);
    std::optional<std::string> take_head(int64_t now_ms);

    unique_fd m_fd;
    uint64_t m_number;
    http_times m_times;
    int64_t m_deadline;
    phase m_phase = phase::reading;
    bool m_is_new = true;      // it has not said anything since its last answer
    bool m_has_asked = false;  // a whole request
    bool m_keeps_open = false; // after the answer at hand
    std::string m_input;       // at most a head and a read
    std::string m_output;
    size_t m_sent = 0;    // of m_output
    size_t m_drained = 0; // bytes that nobody is going to read
    std::optional<http_refusal> m_refused;
};

} // namespace rtls
