// failure - why a program could not do what it was told, with the exit status that tells it to scripts.
//
// Ownership  A value.
// Threads    Any; one that is thrown on another thread is caught there, and told by the main thread.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include <stdexcept>
#include <string>

namespace tools {

// `Status`: the program's own enumeration. `what` is one sentence without an end, as in "no node is called 1a2b".
template <typename Status>
class failure_with : public std::runtime_error {
public:
    failure_with(Status status, const std::string& why) : std::runtime_error(why), m_status(status) {}
    Status status() const { return m_status; }

private:
    Status m_status;
};

} // namespace tools
