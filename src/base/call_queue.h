// call_queue - calls that other threads hand in, made on the thread of a loop, in the order of the handing
// in.
//
// Ownership  Shared between the thread that makes the calls and those that hand them in. What a call owns is
//            freed with it, also when it is never made.
// Threads    post(): any. The others: the loop's.
// Blocking   Nothing waits but for a short lock.
// Failures   Calls handed in without memory for them, or after close(), are dropped; a prepared one needs none.
//            Calls may throw std::bad_alloc, which is logged.
#pragma once

#include "base/unique_fd.h"

#include "core/thread_annotations.h"

#include <czmq.h>

#include <functional>
#include <list>
#include <memory>
#include <utility>

namespace rtls {

// A call that has its place in a queue already, for those who cannot do without it: handing it in takes no
// memory. Making and copying it throw std::bad_alloc.
class prepared_call {
public:
    explicit prepared_call(std::function<void()> call) { m_call.push_back(std::move(call)); }

private:
    friend class call_queue;
    std::list<std::function<void()>> m_call; // one, until it is handed in
};

class call_queue {
public:
    call_queue();
    ~call_queue() = default;
    call_queue(const call_queue&) = delete;
    call_queue& operator=(const call_queue&) = delete;

    // From now on the loop makes the calls. False, with errno set, when it cannot.
    bool join(zloop_t* loop);
    // No call is made any more.
    void close();

    void post(std::function<void()> call) noexcept;
    void post(prepared_call&& call) noexcept;

    // Readable while there are calls; the queue's. -1: there is none.
    int descriptor() const noexcept { return m_wake_up.get(); }

    // Makes the calls that are there.
    void make_calls() noexcept;

private:
    static int handle_wake_up(zloop_t* loop, zmq_pollitem_t* item, void* queue) noexcept;

    const unique_fd m_wake_up; // an eventfd: readable while there are calls
    annotated_mutex m_mutex;
    std::list<std::function<void()>> m_calls RTLS_GUARDED_BY(m_mutex);
    bool m_is_closed RTLS_GUARDED_BY(m_mutex) = false;
};

// Where threads that an actor does not know find its queue, while it has one.
// Threads    Any.
class call_queue_slot {
public:
    // Null: there is none any more.
    void set(std::shared_ptr<call_queue> queue) noexcept;
    // False while there is none. As call_queue::post: a call may be dropped later, too.
    bool post(std::function<void()> call) noexcept;

private:
    annotated_mutex m_mutex;
    std::shared_ptr<call_queue> m_queue RTLS_GUARDED_BY(m_mutex);
};

} // namespace rtls
