#include "recording/tap_message.h"

namespace rtls::recording {

namespace head_at = rtls::tap_head; // what the gateway writes, as the gateway has it

static_assert(class_count == tap_classes + 1);
static_assert(static_cast<size_t>(message_class::report) == static_cast<size_t>(tap_class::report) &&
              static_cast<size_t>(message_class::management) == static_cast<size_t>(tap_class::management) &&
              static_cast<size_t>(message_class::command) == static_cast<size_t>(tap_class::command) &&
              static_cast<size_t>(message_class::link_in) == static_cast<size_t>(tap_class::link_in) &&
              static_cast<size_t>(message_class::link_out) == static_cast<size_t>(tap_class::link_out) &&
              static_cast<size_t>(message_class::event) == static_cast<size_t>(tap_class::event));

// What topics begin with, without the slash in front of a name.
static constexpr std::array<std::string_view, class_count> class_names = [] {
    std::array<std::string_view, class_count> names{};
    for (size_t i = 0; i < tap_classes; ++i)
        names[i] = tap_topics[i].substr(0, tap_topics[i].size() - (tap_topics[i].ends_with('/') ? 1 : 0));
    names.back() = "other";
    return names;
}();

std::array<uint8_t, tap_head_size> compose_head(const tap_head& head)
{
    std::array<uint8_t, tap_head_size> bytes{};
    bytes[head_at::version] = head_at::present_version;
    bytes[head_at::direction] = head.way;
    store_be16(bytes, head_at::reserved, head.reserved);
    store_be32(bytes, head_at::connection, head.connection);
    store_be64(bytes, head_at::number, head.number);
    store_be64(bytes, head_at::clock, head.clock_ns);
    return bytes;
}

bool parse_head(bytes_view bytes, tap_head& head)
{
    if (bytes.size() != tap_head_size || bytes[head_at::version] != head_at::present_version)
        return false;
    head.way = bytes[head_at::direction];
    head.reserved = load_be16(bytes, head_at::reserved);
    head.connection = load_be32(bytes, head_at::connection);
    head.number = load_be64(bytes, head_at::number);
    head.clock_ns = load_be64(bytes, head_at::clock);
    return true;
}

message_class class_of(std::string_view topic)
{
    for (size_t i = 0; i + 1 < class_count; ++i) {
        const std::string_view name = class_names[i];
        if (topic.starts_with(name) && (topic.size() == name.size() || topic[name.size()] == '/'))
            return static_cast<message_class>(i);
    }
    return message_class::other;
}

std::string_view class_name(message_class of)
{
    return class_names[static_cast<size_t>(of)];
}

std::string_view subject_of(std::string_view topic)
{
    const message_class of = class_of(topic);
    if (of == message_class::other)
        return {};
    const size_t begin = class_name(of).size() + 1;
    return begin < topic.size() ? topic.substr(begin) : std::string_view{};
}

std::string_view way_name(uint8_t way)
{
    return way == way::up ? "up" : way == way::down ? "down" : "neither";
}

} // namespace rtls::recording
