#include "support/operator_peer.h"

#include <algorithm>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

void operator_peer::write(std::string_view bytes)
{
    m_peer.send({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::string operator_peer::read_until(std::string_view end, milliseconds time)
{
    const auto deadline = steady_clock::now() + time;
    size_t at = m_received.find(end);
    while (at == std::string::npos) {
        const size_t seen = m_received.size();
        if (!m_peer.receive_more(m_received, left_until(deadline)))
            break;
        at = m_received.find(end, seen - std::min(seen, end.size()));
    }
    const size_t size = at == std::string::npos ? m_received.size() : at + end.size();
    std::string text = m_received.substr(0, size);
    m_received.erase(0, size);
    return text;
}

std::string operator_peer::ask(std::string_view command, std::string_view end)
{
    write(command);
    return read_until(end);
}

bool operator_peer::is_closed(milliseconds time)
{
    const auto deadline = steady_clock::now() + time;
    while (!m_peer.has_ended() && m_peer.receive_more(m_received, left_until(deadline))) {
    }
    return m_peer.has_ended();
}

} // namespace rtls
