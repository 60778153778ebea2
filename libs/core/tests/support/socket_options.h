// socket_options - sees what the library does with its ZeroMQ sockets: linked into a test, it stands before
// libzmq's own functions.
#pragma once

#include <functional>

namespace socket_options {

// The linger time that was set last, in milliseconds; -2 when none was.
int last_linger_ms();

// Called by whoever sets a linger time, on its thread, once.
void on_next_linger(std::function<void()> action);

// How many sockets were closed so far.
int closed_number();

// Waits until there are more. False: not within ten seconds.
bool wait_for_closing(int more_than);

} // namespace socket_options
