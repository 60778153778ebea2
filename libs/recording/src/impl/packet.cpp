#include "recording/packet.h"

#include <string_view>
#include <utility>

namespace rtls::recording {

static constexpr uint16_t tag_end = 0;
static constexpr uint16_t tag_dissector = 12;
static constexpr std::string_view dissector = "rtls_tap";
static_assert(dissector.size() % 4 == 0, "a tag's value is padded to 4");

// --- Composing

static void put_be16(std::vector<uint8_t>& to, size_t value)
{
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

static void put_be32(std::vector<uint8_t>& to, size_t value)
{
    put_be16(to, value >> 16 & UINT16_MAX);
    put_be16(to, value & UINT16_MAX);
}

template <typename Range>
static void put(std::vector<uint8_t>& to, const Range& bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

static size_t packet_size(const tap_message& message)
{
    size_t size = 4 + dissector.size() + 4 + 2 + message.topic.size() + tap_head_size;
    for (const auto& frame : message.payload)
        size += 4 + frame.size();
    return size;
}

std::vector<uint8_t> compose_packet(const tap_message& message)
{
    std::vector<uint8_t> packet;
    packet.reserve(packet_size(message));
    put_be16(packet, tag_dissector);
    put_be16(packet, dissector.size());
    put(packet, dissector);
    put_be16(packet, tag_end);
    put_be16(packet, 0);
    put_be16(packet, message.topic.size());
    put(packet, message.topic);
    put(packet, compose_head(message.head));
    for (const auto& frame : message.payload) {
        put_be32(packet, frame.size());
        put(packet, frame);
    }
    return packet;
}

// --- Parsing

namespace {

// Takes bytes from the front; more than there are is a failure that sticks.
class packet_reader {
public:
    explicit packet_reader(bytes_view bytes) : m_rest(bytes) {}

    bytes_view take(size_t size)
    {
        if (size > m_rest.size()) {
            m_failed = true;
            m_rest = {};
            return {};
        }
        const bytes_view taken = m_rest.first(size);
        m_rest = m_rest.subspan(size);
        return taken;
    }
    uint16_t be16()
    {
        const bytes_view two = take(2);
        return two.empty() ? uint16_t{0} : load_be16(two, 0);
    }
    uint32_t be32()
    {
        const bytes_view four = take(4);
        return four.empty() ? 0 : load_be32(four, 0);
    }
    bool is_at_end() const { return m_rest.empty(); }
    bool failed() const { return m_failed; }

private:
    bytes_view m_rest;
    bool m_failed = false;
};

} // namespace

// Up to the end of the tags: whether one of them names the tap.
static bool take_tags(packet_reader& reader)
{
    bool is_ours = false;
    while (!reader.failed()) {
        const uint16_t tag = reader.be16();
        const bytes_view value = reader.take(reader.be16());
        if (tag == tag_end)
            return is_ours && !reader.failed();
        std::string_view name{reinterpret_cast<const char*>(value.data()), value.size()};
        name = name.substr(0, name.find('\0')); // who padded it with zeros
        is_ours |= tag == tag_dissector && name == dissector;
    }
    return false;
}

static std::string take_topic(packet_reader& reader)
{
    const bytes_view topic = reader.take(reader.be16());
    return {topic.begin(), topic.end()};
}

bool parse_packet(bytes_view packet, tap_message& message)
{
    packet_reader reader{packet};
    if (!take_tags(reader))
        return false;
    tap_message found;
    found.topic = take_topic(reader);
    if (!parse_head(reader.take(tap_head_size), found.head))
        return false;
    while (!reader.is_at_end() && !reader.failed()) {
        const bytes_view frame = reader.take(reader.be32());
        found.payload.emplace_back(frame.begin(), frame.end());
    }
    if (reader.failed())
        return false;
    message = std::move(found);
    return true;
}

} // namespace rtls::recording
