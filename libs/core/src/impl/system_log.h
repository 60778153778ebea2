// system_log - the system log as this process uses it: opened under a name of ours, closed at the end.
//
// Ownership  Owns the name: libc keeps a pointer to it for as long as the log is open, so the two live and
//            die together. One at a time, as a process has only one identity.
// Threads    Any, all at once.
// Failures   The constructor throws std::bad_alloc, and leaves the system log as it was.
#pragma once

#include <syslog.h>

#include <string>
#include <string_view>

namespace tav::libs::core {

class system_log {
public:
    explicit system_log(std::string_view name);
    ~system_log();
    system_log(const system_log&) = delete;
    system_log& operator=(const system_log&) = delete;

    // Debugging admits debug records and copies all lines to standard error.
    void set_debug(bool on);

    // Whether the mask lets lines of this priority pass. It alone decides, and it belongs to the process:
    // somebody else may have changed it.
    static bool admits(int priority) { return (setlogmask(0) & LOG_MASK(priority)) != 0; }

    static void write(int priority, const std::string& line);

private:
    const std::string m_name;
};

} // namespace tav::libs::core
