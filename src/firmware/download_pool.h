// download_pool - the threads on which firmware is fetched: nobody else waits for a file server.
//
// Four at most, made when they are needed first; what is ordered beyond them waits here. Orders of one lane
// run one after the other, in their order; the others side by side. Operators have half of the threads, and
// room for few orders: nobody at a terminal keeps the servers' orders waiting.
// Ownership  Owns its threads. An order that is never carried out is freed with what it owns.
// Threads    order(): any. The threads ("rtls-download") take no signals. Construct and destroy on one.
// Blocking   order() waits for nothing but a short lock. The destructor waits for the orders that are being
//            carried out, which end early when the daemon stops (image_download.h); it drops the others.
// Failures   order() is false when too many wait, or without memory or threads; nothing is carried out then.
#pragma once

#include "core/thread_annotations.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace rtls {

// Why order() was false, for the debug stream.
inline constexpr char str_not_ordered[] = "too many downloads wait, or there is no memory for one more";

class download_pool {
public:
    static constexpr size_t most_threads = 4;
    static constexpr size_t most_waiting = 1000;
    static constexpr size_t most_threads_for_operators = 2;
    static constexpr size_t most_waiting_of_operators = 100;

    enum class customer { servers, operators };

    download_pool() = default;
    ~download_pool();
    download_pool(const download_pool&) = delete;
    download_pool& operator=(const download_pool&) = delete;

    // What it does now, and what it had to refuse so far. Any thread.
    struct load {
        size_t running = 0;
        size_t waiting = 0;
        uint64_t refused = 0; // as too many wait
        uint64_t not_taken =
            0; // for want of memory, or of a thread; given up in the middle for want of memory, too
    };
    load current_load();
    // An order could not even be made: it counts as not taken.
    void note_not_taken() noexcept;

    // Has `work` done on a thread of the pool. `lane`: orders of the same one wait for each other; "": waits
    // for no other. What `work` throws for lack of memory is logged, and the order forgotten.
    bool order(std::function<void()> work, const std::string& lane = {},
               customer ordered_by = customer::servers);

private:
    struct job {
        std::function<void()> work;
        std::string lane;
        customer ordered_by = customer::servers;
    };
    using job_list = std::list<job>; // a job moves from one to the other without asking for memory

    void run();
    void carry_out(job_list::iterator now);
    bool has_room(customer ordered_by) const RTLS_REQUIRES(m_mutex);
    bool may_begin(const job& waiting) const RTLS_REQUIRES(m_mutex);
    bool add_thread() RTLS_REQUIRES(m_mutex);
    bool begin_next() RTLS_REQUIRES(m_mutex);

    annotated_mutex m_mutex;
    std::condition_variable_any m_changed;
    job_list m_waiting RTLS_GUARDED_BY(m_mutex);
    job_list m_running RTLS_GUARDED_BY(m_mutex); // one a thread at most
    size_t m_idle RTLS_GUARDED_BY(m_mutex) = 0;  // threads
    load m_load RTLS_GUARDED_BY(m_mutex);        // but for what waits and runs
    size_t m_waiting_of_operators RTLS_GUARDED_BY(m_mutex) = 0;
    size_t m_running_of_operators RTLS_GUARDED_BY(m_mutex) = 0;
    bool m_is_ending RTLS_GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_threads; // added under the lock, joined by the destructor
};

} // namespace rtls
