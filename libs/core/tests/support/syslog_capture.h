// syslog_capture - stands in for the system log: linked into a test, it takes the place of libc's.
//
// As in libc, one lock is held by each of its functions, in syslog for as long as the line is on its way.
// Threads    Any may log at once.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace syslog_capture {

// What the system log would have stored, with the identity and the options of that moment. The
// identity is read through the pointer that openlog was given, as libc does.
struct captured_line {
    std::string identity;
    int options;
    int facility;
    int priority;
    std::string text;
    bool operator==(const captured_line&) const = default;
};

// The lines that passed the mask since the last call.
std::vector<captured_line> take();

// Their texts alone.
std::vector<std::string> take_texts();

// Waits until the lines not taken yet fulfil the condition. False: not within ten seconds.
bool wait_for(const std::function<bool(const std::vector<captured_line>&)>& condition);

int mask();

// Whether the last call was openlog rather than closelog.
bool is_open();

// From the next line on, syslog waits, as if the log were alive but not read. Whoever waits may be cancelled
// as in libc, or not even that.
enum class stuck { cancellable, for_good };
void stop_reading(stuck how = stuck::cancellable);
void wait_until_stuck();
void read_again();

} // namespace syslog_capture
