// loop - runs a zloop on the test's thread until something has happened.
#pragma once

#include "support/wait.h"

#include <czmq.h>

#include <chrono>
#include <functional>
#include <utility>

namespace rtls {

// Runs the loop until `condition` holds.
inline bool run_until(zloop_t* loop, std::function<bool()> condition)
{
    struct {
        std::function<bool()> condition;
        std::chrono::steady_clock::time_point end;
        bool held;
    } wait{std::move(condition), std::chrono::steady_clock::now() + patience, false};
    const int timer = zloop_timer(
        loop, 1, 0,
        [](zloop_t*, int, void* p) {
            auto& w = *static_cast<decltype(wait)*>(p);
            w.held = w.condition();
            return w.held || std::chrono::steady_clock::now() >= w.end ? -1 : 0;
        },
        &wait);
    zloop_start(loop);
    zloop_timer_end(loop, timer);
    return wait.held;
}

} // namespace rtls
