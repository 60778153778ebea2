// unique_fd - a descriptor and its one owner. Nothing waits or fails but the system's own close.
#pragma once

#include <unistd.h>

#include <utility>

namespace rtls {

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) noexcept : m_fd(fd) {} // -1: none
    unique_fd(unique_fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
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

private:
    int m_fd = -1;
};

} // namespace rtls
