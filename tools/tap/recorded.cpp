#include "tap/recorded.h"

#include <fmt/format.h>

namespace tap {

using namespace rtls::recording;

recorded::recorded(const std::string& file)
    : m_name(file), m_source(open_recording(file)), m_reader(*m_source)
{
}

bool recorded::next(tap_message& message)
try {
    if (m_state == reading::message)
        m_state = m_reader.next(message);
    if (m_state == reading::damaged && m_reason.empty())
        m_reason = fmt::format("{}: {}", m_name, m_reader.reason());
    return m_state == reading::message;
} catch (const file_error& why) {
    m_state = reading::damaged;
    m_reason = why.what();
    return false;
}

void recorded::end(const program& told_by) const
{
    if (m_state == reading::cut)
        told_by.note(fmt::format("{} ends within a block", m_name));
    if (m_state == reading::damaged)
        throw failure(exit_status::failed, m_reason);
}

} // namespace tap
