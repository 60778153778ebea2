// loop_pulse - whether another thread's loop turns: it is asked, and the time of its last answer is kept.
//
// The loop pays nothing for it unless somebody asks. A question that has no answer yet is not asked again, so
// that a loop that stands is not heaped with questions.
// Ownership  The answer's record is shared with the calls that are under way.
// Threads    ask(): one thread. age_ms(): any. The answer is given on the loop's.
// Blocking   Nothing waits but for the queue's short lock.
// Failures   Without memory nothing is asked, and the pulse ages. The constructor throws std::bad_alloc.
#pragma once

#include <czmq.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>

namespace rtls {

class loop_pulse {
public:
    // Asks through `post(std::function<void()>)`, unless an answer is due already.
    template <typename Post>
    void ask(Post post) noexcept
    try {
        if (!m_question.expired())
            return;
        // Whatever becomes of the call, the question goes with it.
        auto question = std::make_shared<char>();
        m_question = question;
        post(
            [answered = m_answered, question] { answered->store(zclock_mono(), std::memory_order_relaxed); });
    } catch (const std::bad_alloc&) {
    }

    // Milliseconds since the last answer, or since the pulse was made. `now_ms`: of zclock_mono.
    int64_t age_ms(int64_t now_ms) const noexcept
    {
        return now_ms - m_answered->load(std::memory_order_relaxed);
    }

private:
    std::weak_ptr<char> m_question;
    std::shared_ptr<std::atomic<int64_t>> m_answered = std::make_shared<std::atomic<int64_t>>(zclock_mono());
};

} // namespace rtls
