// overflow_watch - says once that a queue has overflowed, and once that it takes messages again.
//
// Threads    Any, at once. Nothing waits.
// Failures   A refusal for another reason than a full queue is logged each time: it is rare.
#pragma once

#include "base/common.h"
#include "base/logger.h"

#include <atomic>
#include <cerrno>

namespace rtls {

class overflow_watch {
public:
    // Both texts outlive the watch. "Exemption" is what our operators' log filters know as the end of an
    // overflow.
    constexpr overflow_watch(const char* overflow_text, const char* exemption_text) noexcept
        : m_overflow_text(overflow_text), m_exemption_text(exemption_text)
    {
    }

    // The queue took a message.
    void accepted() noexcept
    {
        if (m_overflows.load(std::memory_order_relaxed) &&
            m_overflows.exchange(false, std::memory_order_relaxed))
            logger_error(g_logger, "%s", m_exemption_text);
    }

    // It did not, with errno as `call` left it; `function` is who reports.
    void refused(const char* function, const char* call) noexcept
    {
        if (errno != EAGAIN)
            log_call_error(function, call);
        else if (!m_overflows.exchange(true, std::memory_order_relaxed))
            logger_error(g_logger, "%s", m_overflow_text);
    }

private:
    const char* m_overflow_text;
    const char* m_exemption_text;
    std::atomic<bool> m_overflows{false};
};

} // namespace rtls
