#include "link/gathered_answers.h"

#include <cstring>

namespace rtls {

bool gathered_answers::add(bytes_view message) noexcept
{
    if (message.size() > m_bytes.size() - m_used || m_number == m_sizes.size())
        return false;
    std::memcpy(m_bytes.data() + m_used, message.data(), message.size());
    m_used += message.size();
    m_sizes[m_number++] = static_cast<uint16_t>(message.size());
    return true;
}

} // namespace rtls
