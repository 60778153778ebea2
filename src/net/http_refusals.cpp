#include "net/http_refusals.h"

#include "base/logger.h"
#include "base/peer.h"

namespace rtls {

static constexpr std::array<const char*, counters<http_refusal>::size> http_refusal_texts = {
    "the last descriptors are kept for other things",
    "all connections are taken, and it has been silent for longest",
    "too many requests wait",
    "its request is none of HTTP/1.1",
    "nothing but GET and HEAD is served",
    "the head of its request is too long",
    "it has not given the token",
    "it has taken too long",
    "memory is short",
};

void http_refusals::note(http_refusal why, in_addr who, int64_t now_ms) noexcept
{
    const auto which = static_cast<size_t>(why);
    m_counts[why].add();
    if (m_episodes[which].begins(now_ms))
        logger_warning(g_logger, "http port: %s is refused, %s", ipv4_text{who}.c_str(),
                       http_refusal_texts[which]);
}

} // namespace rtls
