// pacing - when each read of a recording is due, by the clock of the gateway that was recorded.
//
// That clock may have been set meanwhile, or a damaged recording may say anything: no wait is longer than a bound, and
// none is ever negative.
// Ownership  A value.
// Threads    One.
// Failures   None; jumps are counted.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace replay {

class pacing {
public:
    using seconds = std::chrono::duration<double>;

    // `speed`: so many times as fast. `longest`: a pause in the recording that is longer counts as one of this length.
    pacing(double speed, seconds longest) : m_speed(speed), m_longest(longest) {}

    // The time from the first read to this one, at that speed. A clock that steps back by more than a second goes on
    // from there at once; one that steps back by less, as between threads of the gateway, stands still.
    std::chrono::nanoseconds due(uint64_t clock_ns);

    struct jumps {
        uint64_t back = 0;
        uint64_t shortened = 0;
        seconds worst{0}; // the longest of the pauses that were shortened
    };
    const jumps& found() const { return m_jumps; }

private:
    double m_speed;
    seconds m_longest;
    std::optional<uint64_t> m_last_ns;
    seconds m_passed{0}; // in the recording, without what was cut
    jumps m_jumps;
};

} // namespace replay
