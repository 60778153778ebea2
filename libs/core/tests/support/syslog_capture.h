// syslog_capture - stands in for the system log: linked into a test, it takes the place of libc's.
//
// Threads    Any may log at once.
#pragma once

#include <string>
#include <vector>

namespace syslog_capture {

// What the system log would have stored, with the identity and the options of that moment. The
// identity is read through the pointer that openlog was given, as libc does.
struct line_t {
    std::string identity;
    int options;
    int facility;
    int priority;
    std::string text;
    bool operator==(const line_t&) const = default;
};

// The lines that passed the mask since the last call.
std::vector<line_t> take();

// Their texts alone.
std::vector<std::string> take_texts();

int mask();

// Whether the last call was openlog rather than closelog.
bool is_open();

} // namespace syslog_capture
