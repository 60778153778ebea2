// answer_pool - the threads that make the answers of the HTTP port. Two, so that one long page does not keep
// another from being made; never more, as a page costs the processor and nothing else.
//
// Ownership  Owns its threads.
// Threads    start() and stop(): the owner's. order() and take_made(): the door's.
// Blocking   stop() waits for the pages that are being made; those that wait are not made any more.
// Failures   start() throws std::system_error; order() and take_made() std::bad_alloc. An answer that there is
//            no memory for is an empty one, which ends the connection.
#pragma once

#include "http/responder.h"

#include "core/thread_annotations.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace rtls {

class answer_pool {
public:
    static constexpr size_t threads_number = 2;
    static constexpr size_t most_waiting = 64;

    struct request {
        uint64_t connection;
        std::string head;
    };
    struct made {
        uint64_t connection;
        http_answer answer;
    };

    explicit answer_pool(responder& pages) : m_pages(pages) {}
    ~answer_pool() { stop(); }
    answer_pool(const answer_pool&) = delete;
    answer_pool& operator=(const answer_pool&) = delete;

    // `wake_up`: an eventfd that is written to when an answer is made.
    void start(int wake_up);
    void stop();

    // False when so many wait already: clients who order and go do not make it more.
    bool order(request what);
    std::vector<made> take_made();

private:
    void run() noexcept;
    bool wait_for(request& what);
    http_answer answer_to(const request& what) noexcept;
    void hand_in(uint64_t connection, http_answer answer) noexcept;

    responder& m_pages;
    int m_wake_up = -1;
    annotated_mutex m_mutex;
    std::condition_variable_any m_work;
    std::deque<request> m_waiting RTLS_GUARDED_BY(m_mutex);
    std::vector<made> m_made RTLS_GUARDED_BY(m_mutex);
    bool m_is_stopping RTLS_GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_threads;
};

} // namespace rtls
