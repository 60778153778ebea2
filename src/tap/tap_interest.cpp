#include "tap/tap_interest.h"

#include <new>
#include <utility>

namespace rtls {

// Whether the subscription brings messages of the class with topics of this form.
static bool concerns(std::string_view subscribed, std::string_view topic)
{
    return topic.starts_with(subscribed) || (topic.ends_with('/') && subscribed.starts_with(topic));
}

void tap_interest::count(std::string_view topic, int change) noexcept
{
    for (size_t i = 0; i < tap_classes; ++i)
        if (concerns(topic, tap_topics[i])) {
            m_of_class[i] += static_cast<size_t>(change);
            const uint8_t bit = bit_of(static_cast<tap_class>(i));
            m_taken = static_cast<uint8_t>(m_of_class[i] > 0 ? m_taken | bit : m_taken & ~bit);
        }
}

void tap_interest::begin(std::string_view topic)
try {
    if (m_topics.emplace(topic, false).second)
        count(topic, 1);
} catch (const std::bad_alloc&) {
    count(topic, 1);
}

tap_note tap_interest::end(std::string_view topic, tap_voice by) noexcept
{
    const auto found = m_topics.find(topic);
    if (found == m_topics.end())
        return by == tap_voice::peer ? tap_note::foul : tap_note::fine;
    if (by != tap_voice::answer)
        return std::exchange(found->second, true) ? tap_note::fine : tap_note::doubtful_end;
    m_topics.erase(found);
    count(topic, -1);
    return tap_note::fine;
}

void tap_interest::settle(std::string_view topic) noexcept
{
    if (const auto found = m_topics.find(topic); found != m_topics.end())
        found->second = false;
}

tap_note tap_interest::note(std::span<const uint8_t> message, tap_voice by) noexcept
{
    if (message.empty() || message[0] > 1)
        return tap_note::foul;
    const std::string_view topic{reinterpret_cast<const char*>(message.data()) + 1, message.size() - 1};
    if (message[0] == 0)
        return end(topic, by);
    begin(topic);
    return topic.size() <= longest_topic && m_topics.size() <= most_topics ? tap_note::fine : tap_note::foul;
}

void tap_interest::clear() noexcept
{
    m_topics.clear();
    m_of_class.fill(0);
    m_taken = 0;
}

} // namespace rtls
