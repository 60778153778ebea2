#include "rtls-mqtt/outbox.h"

#include <utility>

namespace mqtt {

static size_t size_of(const publication& it)
{
    return it.topic.size() + it.payload.size();
}

void outbox::push(publication it)
{
    const size_t size = size_of(it);
    if (size > m_most_bytes) {
        ++m_lost;
        return;
    }
    for (; !is_empty() && (m_waiting.size() >= m_most_messages || m_bytes + size > m_most_bytes); ++m_lost)
        pop();
    m_bytes += size;
    m_waiting.push_back(std::move(it));
}

publication outbox::pop()
{
    publication it = std::move(m_waiting.front());
    m_waiting.pop_front();
    m_bytes -= size_of(it);
    return it;
}

} // namespace mqtt
