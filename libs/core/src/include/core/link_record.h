// link_record - what is known of one connection to a server upstream, and when it must be mended; from the
// events that ZeroMQ tells of its socket.
//
// The library connects again by itself after a lost connection, but gives an endpoint up for ever when its
// server answers nonsense once, or is a socket of the wrong kind: the connection ends, and no attempt
// follows. Such a link is to be disconnected and connected again, after a pause that doubles from 0.1 s to
// 5 s and starts over with the next handshake.
// Ownership  Texts handed out live for ever.
// Threads    One notes; any may call state() and is_reached(). No lock.
// Blocking   Nothing waits. Nothing fails: an event that it does not know is an attempt to connect again.
#pragma once

#include <zmq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rtls {

// How a link fails. In the order of failure_texts.
enum class link_failure : uint8_t { broken_off, other_protocol, refused, other_socket, lost, kinds };
inline constexpr size_t link_failures = static_cast<size_t>(link_failure::kinds);

// Its fields are read one by one while the link changes.
struct link_state {
    bool is_up;              // connected, and the handshake done
    int64_t since_ms;        // of that, or of the last loss; milliseconds of the epoch, 0: never was up
    uint64_t connections;    // handshakes done
    uint64_t failures;       // handshakes that failed, and connections lost
    const char* last_reason; // of a failure, or of nobody answering; "" without one
    uint64_t lost;           // messages that the library dropped when the link was connected again
    std::array<uint64_t, link_failures> failures_of; // the same by link_failure
};

class link_record {
public:
    static constexpr int first_pause_ms = 100;
    static constexpr int longest_pause_ms = 5000;

    // The events that it wants to know of.
    static constexpr int events = ZMQ_EVENT_CONNECTED | ZMQ_EVENT_CONNECT_DELAYED |
                                  ZMQ_EVENT_CONNECT_RETRIED | ZMQ_EVENT_CLOSED | ZMQ_EVENT_DISCONNECTED |
                                  ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL |
                                  ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH;

    // One event, at `now_ms` of the epoch. A reason, when one is to be said: once, until the next handshake.
    const char* note(int event, int64_t now_ms) noexcept
    {
        switch (event) {
        case ZMQ_EVENT_CONNECTED:
            m_is_reached = true;
            m_is_given_up = false;
            return nullptr;
        case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
            up(now_ms);
            return nullptr;
        case ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL:
            return failed(link_failure::broken_off, now_ms);
        case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
            return failed(link_failure::other_protocol, now_ms);
        case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
            return failed(link_failure::refused, now_ms);
        case ZMQ_EVENT_DISCONNECTED: // given up, unless the library says next that it tries again
            m_is_given_up = true;
            if (!m_is_reached)
                return nullptr; // part of a failed handshake
            if (!m_is_up)
                return failed(link_failure::other_socket, now_ms);
            count(link_failure::lost);
            down(text_of(link_failure::lost), now_ms);
            return nullptr;
        case ZMQ_EVENT_CLOSED:
            down("nobody answers", now_ms);
            return nullptr;
        default: // it tries again
            if (m_is_reached)
                down(m_last_reason, now_ms);
            m_is_given_up = false;
            return nullptr;
        }
    }

    // Whether the library has given the link up: it waits for pause_ms() and is then to be connected again.
    bool is_given_up() const noexcept { return m_is_given_up; }
    int pause_ms() const noexcept { return m_pause_ms; }
    // That is being done.
    void mended() noexcept
    {
        m_is_given_up = false;
        m_pause_ms = std::min(2 * m_pause_ms, longest_pause_ms);
    }
    // It could not be done.
    void not_mended() noexcept { m_is_given_up = true; }

    // So many messages went with the connection that was given up.
    void lost(uint64_t messages) noexcept { m_lost.fetch_add(messages, std::memory_order_relaxed); }

    // Whether somebody is there, as far as TCP knows.
    bool is_reached() const noexcept { return m_is_reached.load(std::memory_order_relaxed); }
    bool is_up() const noexcept { return m_is_up.load(std::memory_order_relaxed); }
    link_state state() const noexcept
    {
        constexpr auto relaxed = std::memory_order_relaxed;
        link_state now{m_is_up.load(relaxed),
                       m_since_ms.load(relaxed),
                       m_connections.load(relaxed),
                       0,
                       m_last_reason.load(relaxed),
                       m_lost.load(relaxed),
                       {}};
        for (size_t i = 0; i < link_failures; ++i)
            now.failures += now.failures_of[i] = m_failures[i].load(relaxed);
        return now;
    }

private:
    void up(int64_t now_ms) noexcept
    {
        m_is_reached = true;
        m_is_up = true;
        m_since_ms = now_ms;
        ++m_connections;
        m_pause_ms = first_pause_ms;
        m_is_given_up = false;
        m_is_said = false;
    }

    void down(const char* reason, int64_t now_ms) noexcept
    {
        m_last_reason = reason;
        m_is_reached = false;
        if (m_is_up.exchange(false))
            m_since_ms = now_ms;
    }

    static constexpr std::array<const char*, link_failures> failure_texts = {
        "the peer broke off the handshake",   "the peer speaks another protocol", "the peer refused us",
        "the peer is another kind of socket", "the connection was lost",
    };
    static constexpr const char* text_of(link_failure failure) noexcept
    {
        return failure_texts[static_cast<size_t>(failure)];
    }
    void count(link_failure failure) noexcept { ++m_failures[static_cast<size_t>(failure)]; }

    const char* failed(link_failure failure, int64_t now_ms) noexcept
    {
        const char* reason = text_of(failure);
        count(failure);
        down(reason, now_ms);
        m_is_given_up = true;
        const bool is_new = !m_is_said;
        m_is_said = true;
        return is_new ? reason : nullptr;
    }

    int m_pause_ms = first_pause_ms;
    bool m_is_given_up = false;
    bool m_is_said = false;

    std::atomic<bool> m_is_reached{false};
    std::atomic<bool> m_is_up{false};
    std::atomic<int64_t> m_since_ms{0};
    std::atomic<uint64_t> m_connections{0};
    std::array<std::atomic<uint64_t>, link_failures> m_failures{};
    std::atomic<const char*> m_last_reason{""};
    std::atomic<uint64_t> m_lost{0};
};

// TCP's own means against a server that vanishes without a word, which no peer sees: a link with nothing to
// send is asked every 2 s after 5 s of silence (one with something to send: core/tcp_silence.h). One attempt
// to connect gets 2 s: the system's own repeats come too late for a server that has just returned. For a
// socket of libzmq's that is not connected yet.
// Not ZMQ_TCP_MAXRT: it also ends the connection of a server that stands for as long, with what TCP holds.
inline void notice_silence(void* socket) noexcept
{
    constexpr struct {
        int option;
        int value;
    } options[] = {
        {ZMQ_TCP_KEEPALIVE, 1},     {ZMQ_TCP_KEEPALIVE_IDLE, 5}, {ZMQ_TCP_KEEPALIVE_INTVL, 2},
        {ZMQ_TCP_KEEPALIVE_CNT, 4}, {ZMQ_CONNECT_TIMEOUT, 2000},
    };
    for (const auto& [option, value] : options)
        (void)zmq_setsockopt(socket, option, &value, sizeof value);
}

} // namespace rtls
