// memory_sum - what many holders take of memory that is bounded in all.
//
// A holder says how much it takes; who would take more asks the sum. Who gives way is decided by those who
// know the holders.
// Ownership  A sum outlives the parts that joined it. A part leaves it when it goes.
// Threads    None of its own, but that any may read a sum. Nothing waits, nothing fails.
#pragma once

#include "base/counter.h"

#include <cstddef>

namespace rtls {

class memory_sum {
public:
    // Of all parts.
    size_t bytes() const noexcept { return m_bytes.value(); }

private:
    friend class memory_part;
    level m_bytes;
};

// What one holder takes. It counts nowhere until it has joined a sum.
class memory_part {
public:
    memory_part() = default;
    ~memory_part() { set(0); }
    memory_part(const memory_part&) = delete;
    memory_part& operator=(const memory_part&) = delete;

    void join(memory_sum& sum) noexcept
    {
        const size_t taken = m_bytes;
        set(0);
        m_sum = &sum;
        set(taken);
    }
    void set(size_t bytes) noexcept
    {
        if (m_sum)
            m_sum->m_bytes.set(m_sum->m_bytes.value() + bytes - m_bytes);
        m_bytes = bytes;
    }
    size_t bytes() const noexcept { return m_bytes; }

private:
    memory_sum* m_sum = nullptr;
    size_t m_bytes = 0;
};

} // namespace rtls
