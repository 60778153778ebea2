#include "impl/log_queue.h"

#include <algorithm>
#include <utility>

namespace tav::libs::core {

log_gap& log_gap::operator+=(const log_gap& other)
{
    lost += other.lost;
    held_back += other.held_back;
    unstored += other.unstored;
    return *this;
}

bool log_queue::push_line(int priority, std::string text)
{
    const size_t bytes = text.size();
    if (m_lines == max_lines || (m_lines != 0 && bytes > max_bytes - std::min(m_bytes, max_bytes))) {
        ++m_gap.lost;
        return false;
    }
    push({log_entry::action::write, priority, std::move(text), m_gap});
    ++m_lines;
    m_bytes += bytes;
    return true;
}

void log_queue::push_order(log_entry::action what)
{
    const auto mark = log_entry::action::mark;
    if (what != mark || m_entries.empty() || m_entries.back().what != mark) {
        push({what, 0, {}, m_gap});
        return;
    }
    m_entries.back().before += std::exchange(m_gap, {});
}

log_entry log_queue::end_gap()
{
    ++m_pushed;
    return {log_entry::action::mark, 0, {}, std::exchange(m_gap, {})};
}

void log_queue::push(log_entry entry)
{
    m_entries.push_back(std::move(entry));
    m_gap = {};
    ++m_pushed;
}

log_entry log_queue::pop()
{
    log_entry entry = std::move(m_entries.front());
    m_entries.pop_front();
    if (entry.what == log_entry::action::write) {
        --m_lines;
        m_bytes -= entry.text.size();
    }
    return entry;
}

} // namespace tav::libs::core
