// tcp_silence - whether the server at the other end of a TCP connection has vanished without a word, by what
// the system knows of the connection.
//
// A server has vanished when nothing has come from it for 12 s, not even an acknowledgement, and what it was
// asked meanwhile (by repeats of unacknowledged data, or by probes of its closed window) has found no answer
// for 8 s. A server that stands, and so takes nothing for however long, still has a system that answers. Who is
// no server may be given a longer silence.
// Ownership  A connection is its owner's. It is known by its descriptor's number and its two addresses. That
//            a number still is that connection is asked each time; only a duplicate that has been proven to be
//            it is ever shut down.
// Threads    One at a time. No lock.
// Blocking   Nothing waits.
// Failures   A connection that cannot be asked (not TCP, gone) has not vanished.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>

namespace rtls {

// Pure: what the system says, and the clock, are handed in.
class silence_judge {
public:
    static constexpr int64_t longest_silence_ms = 12'000;
    static constexpr int64_t longest_unanswered_ms = 8'000;
    static constexpr int64_t sample_every_ms = 500;

    explicit silence_judge(int64_t silence_ms = longest_silence_ms) noexcept : m_silence_ms(silence_ms) {}

    // `unanswered`: repeats or probes since the last answer. `last_ack_ms`: how long that is ago. `now_ms`:
    // of a monotonic clock. True when the peer has vanished. One lost probe of a window, or a pause of our
    // own, says nothing.
    bool has_vanished(unsigned unanswered, int64_t last_ack_ms, int64_t now_ms) noexcept
    {
        const bool was_paused = now_ms - m_last_sample_ms > 6 * sample_every_ms;
        m_last_sample_ms = now_ms;
        if (unanswered == 0) {
            m_since_ms = none;
            return false;
        }
        if (m_since_ms == none || was_paused || now_ms - last_ack_ms > m_since_ms)
            m_since_ms = now_ms;
        return unanswered >= 2 && last_ack_ms >= m_silence_ms && now_ms - m_since_ms >= longest_unanswered_ms;
    }

private:
    static constexpr int64_t none = -1;
    int64_t m_silence_ms;
    int64_t m_since_ms = none; // of the first sample with something unanswered
    int64_t m_last_sample_ms = 0;
};

class tcp_silence {
public:
    explicit tcp_silence(int64_t silence_ms = silence_judge::longest_silence_ms) noexcept
        : m_silence_ms(silence_ms), m_judge(silence_ms)
    {
    }

    // From now on it is about the connection that `fd` is. That `fd` was not closed before is proven by the
    // caller, afterwards. False, and about none, when it is no TCP connection.
    bool begin(int fd) noexcept;
    // About none.
    void end() noexcept { m_fd = -1; }
    bool is_about_one() const noexcept { return m_fd >= 0; }

    // A sample: whether the peer has vanished by now. Call it every sample_every_ms.
    bool has_vanished(int64_t now_ms) noexcept;
    // Ends the connection, when the number still is that connection; its owner sees a lost one. False when a
    // descriptor is missing for the proof: call it again.
    bool cut() noexcept;

private:
    struct names {
        std::array<sockaddr_storage, 2> both; // ours and the peer's; cleared behind each
    };
    static bool read_names(int fd, names& read) noexcept;
    bool is_ours(int fd) const noexcept;

    int64_t m_silence_ms;
    int m_fd = -1;
    names m_names{};
    bool m_is_bounded = false; // the pause between two probes of a closed window
    silence_judge m_judge;
};

} // namespace rtls
