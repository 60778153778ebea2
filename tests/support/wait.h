// wait - waiting for what another thread or the system does. A library of its own, for the tests of the logging
// library and of the simulator, too.
//
// Threads    Any. A condition is asked on the thread that waits.
// Failures   What does not come in time is false.
#pragma once

#include <chrono>
#include <functional>

namespace rtls {

// How long a test waits for what must come. Nothing costs this time but a failure, and a machine that
// is busy elsewhere must not cause one.
inline constexpr std::chrono::milliseconds patience = std::chrono::seconds(20);

// Whether the condition comes true in time; looks every millisecond.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds time = patience);

// Repeats `step` until `done` holds; false when it does not in time.
bool repeat_until(const std::function<bool()>& done, const std::function<void()>& step,
                  std::chrono::milliseconds time = patience);

// What is left until then, for calls that take a time-out; none when it has passed.
std::chrono::milliseconds left_until(std::chrono::steady_clock::time_point deadline);
} // namespace rtls
