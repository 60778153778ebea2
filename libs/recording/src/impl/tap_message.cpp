#include "recording/tap_message.h"

namespace rtls::recording {

namespace head_at {
constexpr size_t version = 0; // u8
constexpr size_t way = 1;     // u8
constexpr size_t reserved = 2;
constexpr size_t connection = 4; // u32
constexpr size_t number = 8;     // u64
constexpr size_t clock_ns = 16;  // u64
constexpr size_t size = 24;
static_assert(size == tap_head_size);
} // namespace head_at

static constexpr uint8_t head_version = 1;

static constexpr std::array<std::string_view, class_count> class_names{
    "report", "management", "command", "link/in", "link/out", "event", "other"};

static uint64_t load_be64(bytes_view b, size_t at)
{
    return uint64_t{load_be32(b, at)} << 32 | load_be32(b, at + 4);
}

static void store_be64(bytes_span b, size_t at, uint64_t value)
{
    store_be32(b, at, static_cast<uint32_t>(value >> 32));
    store_be32(b, at + 4, static_cast<uint32_t>(value));
}

std::array<uint8_t, tap_head_size> compose_head(const tap_head& head)
{
    std::array<uint8_t, tap_head_size> bytes{};
    bytes[head_at::version] = head_version;
    bytes[head_at::way] = head.way;
    store_be16(bytes, head_at::reserved, head.reserved);
    store_be32(bytes, head_at::connection, head.connection);
    store_be64(bytes, head_at::number, head.number);
    store_be64(bytes, head_at::clock_ns, head.clock_ns);
    return bytes;
}

bool parse_head(bytes_view bytes, tap_head& head)
{
    if (bytes.size() != tap_head_size || bytes[head_at::version] != head_version)
        return false;
    head.way = bytes[head_at::way];
    head.reserved = load_be16(bytes, head_at::reserved);
    head.connection = load_be32(bytes, head_at::connection);
    head.number = load_be64(bytes, head_at::number);
    head.clock_ns = load_be64(bytes, head_at::clock_ns);
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
