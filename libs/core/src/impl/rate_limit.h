// rate_limit - how many lines a second may go to the system log, whoever causes them.
//
// So many lines of each second pass whole. Beyond that only the first line of each kind does: a flood of
// one kind must not hide what happens beside it, the end of the program least of all.
// Threads    None of its own; the owner locks.
// Failures   Nothing throws; it needs no memory beyond its own.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace tav::libs::core {

class rate_limit {
public:
    using time_point = std::chrono::steady_clock::time_point;

    static constexpr size_t lines_each_second = 1000;
    static constexpr size_t kinds_each_second = 64; // more are not told apart

    // Whether a line passes that is due now. Lines of one kind share the pointer, usually to their pattern;
    // it is compared, never read.
    bool admits(const void* kind, time_point now);

    // The end of the second in which the last line came.
    time_point end_of_second() const { return m_end; }

private:
    bool is_first_of(const void* kind);

    time_point m_end; // a second begins with a line
    size_t m_passed = 0;
    std::array<const void*, kinds_each_second> m_kinds{};
    size_t m_kinds_number = 0;
};

} // namespace tav::libs::core
