#include "impl/timestamp.h"

#include <algorithm>
#include <array>
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

namespace {

// A second's date and time of day.
struct second_text {
    explicit second_text(std::time_t second) : of(second)
    {
        std::tm utc{};
        gmtime_r(&second, &utc);
        size = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &utc);
    }

    std::time_t of;
    std::array<char, 25> text{};
    size_t size;
};

} // namespace

// A thread's records come many to a second, and taking a time apart costs more than all the rest of one, with a
// lock of libc's.
static const second_text& text_of_second(std::time_t second)
{
    static thread_local second_text last(second);
    if (last.of != second)
        last = second_text(second);
    return last;
}

std::string timestamp::to_iso_8601(bool with_milliseconds, char separator, bool with_zone_mark) const
{
    std::string text;
    append_iso_8601(text, with_milliseconds, separator, with_zone_mark);
    return text;
}

void timestamp::append_iso_8601(std::string& text, bool with_milliseconds, char separator,
                                bool with_zone_mark) const
{
    const second_text& date = text_of_second(get_ts());
    const size_t begin = text.size();
    text.append(date.text.data(), date.size);
    if (date.size > separator_index)
        text[begin + separator_index] = separator;
    if (with_milliseconds) {
        const unsigned after_second = get_ms();
        const auto digit = [](unsigned value) { return static_cast<char>('0' + value % 10); };
        const char fraction[] = {'.', digit(after_second / 100), digit(after_second / 10),
                                 digit(after_second)};
        text.append(fraction, sizeof fraction);
    }
    if (with_zone_mark)
        text += 'Z';
}

} // namespace tav::libs::core
