// system_log - the system log as this process uses it: opened under a name of ours, fed by a thread of its
// own.
//
// syslog(3) waits for as long as whoever should read the log does not, and lets everybody else who calls it
// wait meanwhile. Here nobody waits: lines go into a queue, and one thread carries them on, in their order.
// Lines beyond its bounds are lost and said; so are lines beyond 1,000 a second (rate_limit).
// Ownership  Owns the queue, the name (libc keeps a pointer to it for as long as the log is open) and the
//            thread, "rtls-log", which takes no signals. One at a time, as a process has only one identity.
// Threads    Any, all at once, except constructor, close() and destructor. Only our thread calls libc's
//            functions for the system log (log_thread); admits() does while that thread does not.
// Blocking   write() and admits() wait for nothing but short locks. The constructor and set_debug() wait
//            until the thread has followed, flush() and close() until all is written, each for a bounded
//            time.
// Failures   The constructor throws std::bad_alloc or std::system_error and leaves the system log closed.
//            write() throws std::bad_alloc. After a fork, the child's calls do nothing.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tav::libs::core {

struct log_thread_state;

class system_log {
public:
    struct counters {
        uint64_t queued;    // lines taken in
        uint64_t written;   // of these, handed to libc
        uint64_t lost;      // lines for which there was no room
        uint64_t held_back; // lines beyond the rate
        uint64_t unstored;  // lines for which there was no memory
    };

    explicit system_log(std::string_view name);
    ~system_log(); // closes
    system_log(const system_log&) = delete;
    system_log& operator=(const system_log&) = delete;

    // Writes what is left; what cannot be written within two seconds is given up, and what follows is not
    // written. exit() closes what is still open.
    void close();

    // Debugging admits debug records and copies all lines to standard error, from the next line on.
    void set_debug(bool on);

    // Whether the mask lets lines of this priority pass. It alone decides, and it belongs to the process:
    // somebody else may have changed it, which is seen at once, or after the line that is being written.
    bool admits(int priority) const;

    // One line. Debug lines that the mask would not let pass do not count as lines.
    // kind: see rate_limit.
    void write(int priority, std::string_view text, const void* kind);

    // Counts a line for which there is no memory, as write() would have taken it. Needs none itself.
    void lose(int priority);

    // Waits until all lines so far are written, and it is said which are missing. False: not in time.
    bool flush(std::chrono::milliseconds timeout);

    counters count() const;

    // Whether our thread is there. One that waits in libc is.
    bool is_carried_on() const;

private:
    bool is_in_child() const;
    bool takes(int priority) const;

    std::shared_ptr<log_thread_state> m_state; // the thread's, too: it may have to be left behind
    const unsigned m_forks;                    // that made this process
    pthread_t m_thread;
    bool m_is_running = true;
    std::atomic<uint64_t> m_queued{0};
    std::atomic<uint64_t> m_lost{0};
    std::atomic<uint64_t> m_held_back{0};
    std::atomic<uint64_t> m_unstored{0};
};

} // namespace tav::libs::core
