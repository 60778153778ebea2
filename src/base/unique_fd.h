// unique_fd - a descriptor and its one owner.
//
// Ownership  Owns the descriptor, and closes it. Moving hands it over; what the target of an assignment had goes
//            to the source, and with it. Whoever must know whether the close succeeds, closes by hand.
// Threads    As of the descriptor; no lock.
// Blocking   Only what the system's close waits for.
// Failures   Nothing throws; -1 is no descriptor. A failing close is not told, and leaves errno changed.
#pragma once

#include <unistd.h>

#include <utility>

namespace rtls {

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) noexcept : m_fd(fd) {} // -1: none
    unique_fd(unique_fd&& other) noexcept : m_fd(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~unique_fd()
    {
        if (m_fd != -1)
            ::close(m_fd);
    }

    explicit operator bool() const noexcept { return m_fd != -1; }
    int get() const noexcept { return m_fd; }
    // Gives the descriptor up to the caller.
    int release() noexcept { return std::exchange(m_fd, -1); }

private:
    int m_fd = -1;
};

} // namespace rtls
