// systemd - its library's two calls that we need, or their absence in a build without it.
//
// Threads    Main thread.
// Failures   What cannot be sent is not sent.
#pragma once

#include <cstdint>

namespace rtls {

// Whether somebody is to be told.
bool systemd_listens();
void systemd_tell(const char* state);
// Within which time systemd wants a sign of life; 0: it wants none.
int64_t systemd_watchdog_ms();

} // namespace rtls
