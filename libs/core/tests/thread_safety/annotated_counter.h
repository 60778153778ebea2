// annotated_counter - what the checks of the lock annotations compile against.
#pragma once

#include "core/thread_annotations.h"

class annotated_counter {
public:
    void add()
    {
        const rtls::mutex_guard lock(m_mutex);
        add_locked();
    }

    bool try_add()
    {
        if (!m_mutex.try_lock())
            return false;
        add_locked();
        m_mutex.unlock();
        return true;
    }

    void add_by_hand()
    {
        m_mutex.lock();
        ++m_value;
        m_mutex.unlock();
    }

#if defined(READS_WITHOUT_LOCK)
    int value() const
    {
        return m_value;
    }
#elif defined(CALLS_WITHOUT_LOCK)
    void add_twice()
    {
        add_locked();
    }
#elif defined(LEAVES_LOCKED)
    void add_and_keep()
    {
        m_mutex.lock();
        ++m_value;
    }
#elif defined(LOCKS_TWICE)
    void add_nested()
    {
        const rtls::mutex_guard outer(m_mutex);
        const rtls::mutex_guard inner(m_mutex);
        ++m_value;
    }
#endif

private:
    void add_locked() RTLS_REQUIRES(m_mutex)
    {
        ++m_value;
    }

    rtls::annotated_mutex m_mutex;
    int m_value RTLS_GUARDED_BY(m_mutex) = 0;
};
