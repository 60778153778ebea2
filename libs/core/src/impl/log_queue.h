// log_queue - what is still to be done with the system log, in order, bounded in lines and bytes.
//
// Lines that find no room, or no memory, are lost, and lines beyond the rate are held back; all are counted,
// and the next entry carries the counts, so that they can be told where the lines are missing.
// Ownership  Owns its entries until pop() hands them out.
// Threads    None of its own; the owner locks.
// Failures   The push functions throw std::bad_alloc, and then nothing has changed; nothing else throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace tav::libs::core {

// Lines missing between two entries.
struct log_gap {
    uint64_t lost = 0;
    uint64_t held_back = 0;
    uint64_t unstored = 0; // for want of memory

    log_gap& operator+=(const log_gap& other);
};

struct log_entry {
    enum class action { write, debug_on, debug_off, mark }; // a mark only says what is missing before it

    action what = action::mark;
    int priority = 0; // of syslog
    std::string text;
    log_gap before;
};

class log_queue {
public:
    // A minute's worth of quiet operation, or some seconds of the most that the rate admits.
    static constexpr size_t max_lines = 8192;
    static constexpr size_t max_bytes = 8U << 20U; // but one line of any length

    // Adds a line. False when there is no room: it is counted as lost.
    bool push_line(int priority, std::string text);

    // Counts a line that may not pass.
    void hold_back() { ++m_gap.held_back; }

    // Counts a line that there is no memory for.
    void lose() { ++m_gap.unstored; }

    // Adds anything else; for that there is always room. A mark behind a mark adds nothing.
    void push_order(log_entry::action what);

    // A mark behind all entries, given out as if it had been pushed and popped. Only when there is none
    // before it. Needs no memory.
    log_entry end_gap();

    // The oldest entry. Only when there is one.
    log_entry pop();

    bool is_empty() const { return m_entries.empty(); }

    // What is missing behind the last entry.
    const log_gap& gap() const { return m_gap; }

    // How many entries were added since the beginning.
    uint64_t pushed() const { return m_pushed; }

private:
    void push(log_entry entry);

    std::deque<log_entry> m_entries;
    size_t m_lines = 0;
    size_t m_bytes = 0;
    uint64_t m_pushed = 0;
    log_gap m_gap;
};

} // namespace tav::libs::core
