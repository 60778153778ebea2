// socket_options - sees the options that the library sets on its ZeroMQ sockets: linked into a test, it
// stands before libzmq's own function.
#pragma once

#include <functional>

namespace socket_options {

// The linger time that was set last, in milliseconds; -2 when none was.
int last_linger_ms();

// Called by whoever sets a linger time, on its thread, once.
void on_next_linger(std::function<void()> action);

} // namespace socket_options
