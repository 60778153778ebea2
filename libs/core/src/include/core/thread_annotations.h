// thread_annotations - says in the code which lock guards what, so that clang checks it on every build
// (-Wthread-safety). Other compilers see nothing of it.
//
//     class table {
//         void insert_locked(int key) RTLS_REQUIRES(m_mutex);
//         mutable rtls::annotated_mutex m_mutex;
//         std::set<int> m_keys RTLS_GUARDED_BY(m_mutex);
//     };
//     const rtls::mutex_guard lock(m_mutex); // in a scope one can see
//
// The standard's own mutex and guards carry no annotations with libstdc++; hence the two classes below.
// Threads    Any. The analysis is made while compiling: nothing here costs time or space at run time.
#pragma once

#include <mutex>

#if defined(__clang__)
#define RTLS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define RTLS_THREAD_ANNOTATION(x)
#endif

// On classes: this is a lock (`name` goes into the warnings); this holds one from birth to death.
#define RTLS_CAPABILITY(name) RTLS_THREAD_ANNOTATION(capability(name))
#define RTLS_SCOPED_CAPABILITY RTLS_THREAD_ANNOTATION(scoped_lockable)

// On variables: only with the lock held; the second form is about what a pointer points to.
#define RTLS_GUARDED_BY(lock) RTLS_THREAD_ANNOTATION(guarded_by(lock))
#define RTLS_PT_GUARDED_BY(lock) RTLS_THREAD_ANNOTATION(pt_guarded_by(lock))

// On locks: the order in which they nest (checked with -Wthread-safety-beta).
#define RTLS_ACQUIRED_BEFORE(...) RTLS_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define RTLS_ACQUIRED_AFTER(...) RTLS_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

// On functions, what the caller must hold, or must not hold.
#define RTLS_REQUIRES(...) RTLS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define RTLS_REQUIRES_SHARED(...) RTLS_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define RTLS_EXCLUDES(...) RTLS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// On functions, what they do to a lock. Without an argument: to their own object.
#define RTLS_ACQUIRE(...) RTLS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RTLS_RELEASE(...) RTLS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RTLS_TRY_ACQUIRE(...) RTLS_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RTLS_ACQUIRE_SHARED(...) RTLS_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RTLS_RELEASE_SHARED(...) RTLS_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))

// On functions: tells the analysis that the lock is held here, returns this lock, is not to be looked
// at (say beside it why not).
#define RTLS_ASSERT_HELD(...) RTLS_THREAD_ANNOTATION(assert_capability(__VA_ARGS__))
#define RTLS_RETURNS_LOCK(lock) RTLS_THREAD_ANNOTATION(lock_returned(lock))
#define RTLS_NO_THREAD_SAFETY_ANALYSIS RTLS_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace rtls {

// std::mutex, with annotations. Fits std::condition_variable_any as it is.
class RTLS_CAPABILITY("mutex") annotated_mutex {
public:
    annotated_mutex() = default;
    ~annotated_mutex() = default;
    annotated_mutex(const annotated_mutex&) = delete;
    annotated_mutex& operator=(const annotated_mutex&) = delete;

    void lock() RTLS_ACQUIRE() { m_mutex.lock(); }
    void unlock() RTLS_RELEASE() { m_mutex.unlock(); }
    [[nodiscard]] bool try_lock() RTLS_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    std::mutex m_mutex;
};

// Holds the mutex for as long as it lives.
class RTLS_SCOPED_CAPABILITY mutex_guard {
public:
    explicit mutex_guard(annotated_mutex& mutex) RTLS_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~mutex_guard() RTLS_RELEASE() { m_mutex.unlock(); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

private:
    annotated_mutex& m_mutex;
};

} // namespace rtls
