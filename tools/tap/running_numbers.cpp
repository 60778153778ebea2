#include "tap/running_numbers.h"

#include <fmt/format.h>

#include <algorithm>

namespace tap {

using namespace rtls::recording;

static bool covers(const std::vector<std::string>& topics, std::string_view name)
{
    return topics.empty() || std::ranges::any_of(topics, [&](const std::string& topic) {
               return name.starts_with(topic) || topic == fmt::format("{}/", name);
           });
}

running_numbers::running_numbers(const std::vector<std::string>& topics)
{
    for (size_t i = 0; i < class_count; ++i)
        m_classes[i].is_whole = covers(topics, class_name(static_cast<message_class>(i)));
    m_classes[static_cast<size_t>(message_class::other)].is_whole = false; // there may be several
}

running_numbers::step running_numbers::note(message_class of, uint64_t number)
{
    of_class& it = m_classes[static_cast<size_t>(of)];
    step found;
    if (it.is_whole && it.last != 0) {
        found.has_restarted = number <= it.last;
        found.missed = number - (found.has_restarted ? 1 : it.last + 1);
    }
    if (number == 0) // from nobody who counts
        found = {};
    it.last = number;
    it.missed += found.missed;
    return found;
}

uint64_t running_numbers::missed(message_class of) const
{
    return m_classes[static_cast<size_t>(of)].missed;
}

uint64_t running_numbers::missed() const
{
    uint64_t sum = 0;
    for (const of_class& it : m_classes)
        sum += it.missed;
    return sum;
}

std::string sentence_of(const running_numbers::step& step, const tap_message& message)
{
    const std::string_view name = class_name(class_of(message.topic));
    const std::string missing = fmt::format("{} message{} missing before number {}", step.missed,
                                            step.missed == 1 ? " is" : "s are", message.head.number);
    if (step.has_restarted)
        return fmt::format("{}: the gateway counts from 1 again{}{}", name, step.missed > 0 ? "; " : "",
                           step.missed > 0 ? missing : "");
    return step.missed > 0 ? fmt::format("{}: {}", name, missing) : "";
}

} // namespace tap
