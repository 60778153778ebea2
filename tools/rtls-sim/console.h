// console - what the simulator prints: lines that scroll, and below them a line of counters that stays.
//
// Threads    Any thread may print. When standard output is no terminal, counters become a line of their own
//            every few seconds. Lines beyond a budget per second are counted instead of printed, so that a
//            fast run is not held up by its own output.
// Failures   Nobody who reads any more: flush says so; no room for what is printed: flush throws tools::output_error.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace sim {

struct console_options {
    bool quiet = false;              // counters and notices only
    unsigned lines_per_second = 200; // 0: no limit
};

class console {
public:
    explicit console(console_options options, FILE* out = stdout);
    ~console();
    console(const console&) = delete;
    console& operator=(const console&) = delete;

    // Whether a traffic line would be printed now. Ask before making one.
    bool wants_traffic();
    // A line about traffic, within the budget; dropped when quiet.
    void traffic(std::string_view line);
    // A line that is always printed.
    void notice(std::string_view line);
    // Sets the counters; on a terminal, redraws them at the next flush.
    void counters(std::string_view line);
    // Writes out what is buffered. False when nobody reads any more.
    bool flush();
    // Takes the counters off the screen for good.
    void finish();

private:
    bool within_budget_locked();
    void print_locked(std::string_view line);
    void erase_counters_locked();
    void draw_counters_locked();

    std::mutex m_mutex;
    FILE* m_out;
    console_options m_options;
    bool m_is_terminal;
    bool m_counters_drawn = false;
    bool m_reader_left = false;
    std::string m_counters;
    std::chrono::steady_clock::time_point m_counters_printed{};
    std::chrono::steady_clock::time_point m_second{};
    unsigned m_lines_this_second = 0;
    uint64_t m_not_shown = 0;
};

// "12:00:01.250", local time.
std::string wall_clock();

} // namespace sim
