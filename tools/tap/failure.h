// failure - why a program could not do what it was told, and the exit status that tells it to scripts.
//
// Ownership  A value.
// Threads    Any.
#pragma once

#include <stdexcept>
#include <string>

namespace tap {

// Scripts depend on the numbers.
enum class exit_status : int {
    done = 0,
    failed = 1,      // a file cannot be read or written, or is damaged; an output takes nothing
    usage = 2,       // the command line is wrong: nothing was done
    unreachable = 3, // nobody answers at the endpoint
    incomplete = 4,  // done, but messages were missed, or something differs
};

// `what` is one sentence without an end, as in "nobody answers at tcp://127.0.0.1:1".
class failure : public std::runtime_error {
public:
    failure(exit_status status, const std::string& why) : std::runtime_error(why), m_status(status) {}
    exit_status status() const { return m_status; }

private:
    exit_status m_status;
};

} // namespace tap
