// overflow_watch - says once that a queue has overflowed, and once that it takes messages again: with how
// many were lost meanwhile, and in how long.
//
// Threads    Any, at once. Nothing waits. A loss that meets the end of an episode in another thread may be
//            counted to the next one; none is counted twice, and none is forgotten.
// Failures   A refusal for another reason than a full queue is logged each time: it is rare.
#pragma once

#include "base/common.h"
#include "base/logger.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>

namespace rtls {

class overflow_watch {
public:
    // The texts outlive the watch. "Exemption" is what our operators' log filters know as the end of an
    // overflow; `name` ("message handler queue") is what the count of the losses calls the queue.
    constexpr overflow_watch(const char* overflow_text, const char* exemption_text, const char* name) noexcept
        : m_overflow_text(overflow_text), m_exemption_text(exemption_text), m_name(name)
    {
    }

    // The queue took a message. Without an overflow this reads no clock and writes nothing.
    void accepted() noexcept
    {
        if (m_since_ms.load(std::memory_order_relaxed) == none)
            return;
        const int64_t since = m_since_ms.exchange(none, std::memory_order_relaxed);
        if (since == none)
            return; // another thread has said it
        logger_error(g_logger, "%s", m_exemption_text);
        say_losses(since);
    }

    // It did not, with errno as `call` left it; `function` is who reports.
    void refused(const char* function, const char* call) noexcept
    {
        if (errno != EAGAIN)
            return log_call_error(function, call);
        m_lost.fetch_add(1, std::memory_order_relaxed);
        if (m_since_ms.load(std::memory_order_relaxed) != none)
            return;
        int64_t expected = none;
        if (m_since_ms.compare_exchange_strong(expected, now_ms(), std::memory_order_relaxed))
            logger_error(g_logger, "%s", m_overflow_text);
    }

    // Some have been lost in another way. False, and not counted, without an episode.
    bool add_lost(uint64_t messages) noexcept
    {
        if (!is_overflowing())
            return false;
        m_lost.fetch_add(messages, std::memory_order_relaxed);
        return true;
    }

    // How many have been lost in all episodes.
    uint64_t lost() const noexcept { return m_lost.load(std::memory_order_relaxed); }

    // Whether an episode has begun and not ended.
    bool is_overflowing() const noexcept { return m_since_ms.load(std::memory_order_relaxed) != none; }

    // Whoever drains the queue stops: says what an overflow that has not ended has cost until now. Nothing
    // without an overflow, or when it has been said.
    void stopping() noexcept
    {
        const int64_t since = m_since_ms.load(std::memory_order_relaxed);
        if (since != none)
            say_losses(since);
    }

private:
    static constexpr int64_t none = -1; // no overflow

    static int64_t now_ms() noexcept
    {
        using namespace std::chrono;
        return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    }

    void say_losses(int64_t since) noexcept
    {
        const auto lost = static_cast<unsigned long long>(take_unsaid());
        if (lost == 0)
            return; // a stop has said it
        const auto time = static_cast<long long>(now_ms() - since);
        logger_info(g_logger, "Overflow %s: %llu lost in %lld ms", m_name, lost, time);
    }

    // The losses that have not been said, which are said from now on.
    uint64_t take_unsaid() noexcept
    {
        uint64_t said = m_said.load(std::memory_order_relaxed);
        for (;;) {
            const uint64_t all = lost();
            if (all <= said)
                return 0; // another thread has taken them
            if (m_said.compare_exchange_weak(said, all, std::memory_order_relaxed))
                return all - said;
        }
    }

    const char* m_overflow_text;
    const char* m_exemption_text;
    const char* m_name;
    std::atomic<int64_t> m_since_ms{none}; // the episode's first loss, by the monotonic clock
    std::atomic<uint64_t> m_lost{0};       // since the start
    std::atomic<uint64_t> m_said{0};       // of these
};

} // namespace rtls
