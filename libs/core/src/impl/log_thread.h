// log_thread - the one thread that calls libc's functions for the system log, and what it shares with its
// owner (system_log).
//
// Ownership  The shared state belongs to both, as a thread that stands in libc for ever has to be left
//            behind.
// Threads    "rtls-log" takes no signals. The system log is one thread's from opening to closing: if one was
//            left behind, the next waits for it; nobody else does.
// Failures   start_log_thread throws std::bad_alloc or std::system_error. The thread itself needs no memory
//            of ours: what says how many lines are missing must come out when memory is short.
#pragma once

#include "core/thread_annotations.h"
#include "impl/log_queue.h"
#include "impl/rate_limit.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tav::libs::core {

struct log_thread_state {
    explicit log_thread_state(std::string_view identity) : name(identity) {}

    const std::string name; // libc keeps a pointer to it
    rtls::annotated_mutex mutex;
    std::condition_variable_any work;     // something to do, or to stop
    std::condition_variable_any progress; // an entry was followed, or the thread has ended
    log_queue queue RTLS_GUARDED_BY(mutex);
    rate_limit rate RTLS_GUARDED_BY(mutex);
    uint64_t followed RTLS_GUARDED_BY(mutex) = 0;    // entries of the queue
    bool is_closing RTLS_GUARDED_BY(mutex) = false;  // ends when nothing is left to do
    bool is_given_up RTLS_GUARDED_BY(mutex) = false; // ends at once
    bool has_ended RTLS_GUARDED_BY(mutex) = false;

    std::atomic<int> mask{0}; // as last seen
    std::atomic<uint64_t> written{0};
};

// Starts the thread: it opens the log with the first order of the queue, follows the others, and closes the
// log. Join or detach it. It can be cancelled while it is in syslog(3); then libc lets go of its lock.
pthread_t start_log_thread(const std::shared_ptr<log_thread_state>& state);

// The mask of the system log: as it is, or, while somebody is in libc, as the thread saw it last.
int current_log_mask(log_thread_state& state);

} // namespace tav::libs::core
