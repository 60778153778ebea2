#include "impl/rate_limit.h"

#include <algorithm>
#include <span>

namespace tav::libs::core {

bool rate_limit::admits(const void* kind, time_point now)
{
    if (now >= m_end) {
        m_end = now + std::chrono::seconds(1);
        m_passed = 0;
        m_kinds_number = 0;
    }
    const bool passes = is_first_of(kind) || m_passed < lines_each_second;
    m_passed += passes ? 1 : 0;
    return passes;
}

bool rate_limit::is_first_of(const void* kind)
{
    const auto known = std::span(m_kinds).first(m_kinds_number);
    if (known.size() == m_kinds.size() || std::ranges::find(known, kind) != known.end())
        return false;
    m_kinds.at(m_kinds_number++) = kind;
    return true;
}

} // namespace tav::libs::core
