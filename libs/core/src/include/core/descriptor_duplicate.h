// descriptor_duplicate - one more descriptor of what a number is now. Whatever becomes of the number later, the
// duplicate stays what it was proven to be.
//
// Ownership  Owns the duplicate, never the number. While it lives, the connection behind it is not closed.
// Threads    One.
// Failures   get() is negative, errno says why.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace rtls {

class descriptor_duplicate {
public:
    explicit descriptor_duplicate(int fd) noexcept : m_fd(fcntl(fd, F_DUPFD_CLOEXEC, 0)) {}
    ~descriptor_duplicate()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    descriptor_duplicate(const descriptor_duplicate&) = delete;
    descriptor_duplicate& operator=(const descriptor_duplicate&) = delete;
    int get() const noexcept { return m_fd; }

private:
    int m_fd;
};

} // namespace rtls
