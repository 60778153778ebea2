#include "rtls-tail/link_stream.h"

#include "wire/slip.h"

#include <utility>

namespace tail {

static constexpr size_t message_limit = size_t{1} << 20;

std::vector<std::vector<uint8_t>> link_stream::feed(rtls::bytes_view bytes)
{
    std::vector<std::vector<uint8_t>> done;
    for (const uint8_t byte : bytes) {
        const bool is_plain = m_is_escaped || !rtls::slip_is_special(byte);
        if (m_is_inside && is_plain)
            m_message.push_back(byte);
        m_is_inside = m_is_inside && m_message.size() <= message_limit;
        m_is_escaped = !is_plain && m_is_inside && byte == rtls::slip_esc;
        if (is_plain || m_is_escaped)
            continue;
        if (byte == rtls::slip_end && m_is_inside && !m_message.empty())
            done.push_back(std::move(m_message));
        m_message.clear();
        m_is_inside = byte == rtls::slip_start;
    }
    return done;
}

} // namespace tail
