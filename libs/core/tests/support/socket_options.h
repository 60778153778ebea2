// socket_options - sees what the library does with its ZeroMQ sockets: linked into a test, it stands before
// libzmq's own functions.
#pragma once

#include <functional>
#include <optional>

namespace socket_options {

// What this option, a number, was set to last; nothing when it never was.
std::optional<int> last_value(int option);

// Called by whoever sets a linger time, on its thread, once.
void on_next_linger(std::function<void()> action);

// How many sockets were closed so far.
int closed_number();

// Waits until there are more. False: not within ten seconds.
bool wait_for_closing(int more_than);

} // namespace socket_options
