// timestamp - a point in time with millisecond resolution, and its text.
//
// Threads    Any; values.
// Failures   The text throws std::bad_alloc. A year that strftime has no room for gives an empty date.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tav::libs::core {

class timestamp {
public:
    using duration = std::chrono::milliseconds;

    // So many milliseconds after that second of the epoch. Seconds that milliseconds cannot count
    // (further than 292 million years off) are cut to the last ones that they can.
    timestamp(long seconds, unsigned int milliseconds);

    // The real-time clock, cut to milliseconds.
    static timestamp current_time();

    long get_ts() const;         // whole seconds since the epoch
    unsigned int get_ms() const; // 0..999
    duration get_time_since_epoch() const { return m_time_point.time_since_epoch(); }

    // "2024-05-01 13:07:02" in UTC with `separator` between date and time; optionally followed by
    // ".045" and by "Z".
    std::string to_iso_8601(bool with_milliseconds, char separator, bool with_zone_mark) const;
    // The same behind what is in `text` already.
    void append_iso_8601(std::string& text, bool with_milliseconds, char separator,
                         bool with_zone_mark) const;

    // Of the text without the zone mark, in years of four digits.
    static constexpr size_t usual_size = sizeof "2024-05-01 13:07:02.045" - 1;

private:
    std::chrono::time_point<std::chrono::system_clock, duration> m_time_point;
};

} // namespace tav::libs::core
