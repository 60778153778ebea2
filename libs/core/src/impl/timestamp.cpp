#include "impl/timestamp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <limits>

namespace tav::libs::core {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Leaves room for any number of milliseconds to be added.
static constexpr long last_second =
    (std::numeric_limits<milliseconds::rep>::max() - std::numeric_limits<unsigned int>::max()) / 1000;
static constexpr long nanoseconds_per_millisecond = 1'000'000;
static constexpr size_t separator_index = 10; // of the blank between date and time

timestamp::timestamp(long since_epoch, unsigned int after_second)
    : m_time_point(milliseconds(std::clamp(since_epoch, -last_second, last_second) * 1000L + after_second))
{
}

timestamp timestamp::current_time()
{
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return {now.tv_sec, static_cast<unsigned int>(now.tv_nsec / nanoseconds_per_millisecond)};
}

long timestamp::get_ts() const
{
    return std::chrono::floor<seconds>(m_time_point).time_since_epoch().count();
}

unsigned int timestamp::get_ms() const
{
    return static_cast<unsigned int>((m_time_point - std::chrono::floor<seconds>(m_time_point)).count());
}

std::string timestamp::to_iso_8601(bool with_milliseconds, char separator, bool with_zone_mark) const
{
    const std::time_t whole_seconds = get_ts();
    std::tm utc{};
    gmtime_r(&whole_seconds, &utc);
    std::array<char, 25> date{};
    std::string text(date.data(), std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &utc));
    if (text.size() > separator_index)
        text[separator_index] = separator;
    if (with_milliseconds) {
        std::array<char, sizeof ".000"> fraction{};
        (void)std::snprintf(fraction.data(), fraction.size(), ".%03u", get_ms());
        text += fraction.data();
    }
    if (with_zone_mark)
        text += 'Z';
    return text;
}

} // namespace tav::libs::core
