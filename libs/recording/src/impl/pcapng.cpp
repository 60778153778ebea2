#include "recording/pcapng.h"

#include <algorithm>

namespace rtls::recording {

namespace block_type {
constexpr uint32_t section = 0x0A0D0D0A; // reads the same in either order
constexpr uint32_t interface = 1;
constexpr uint32_t enhanced_packet = 6;
} // namespace block_type

namespace option {
constexpr uint16_t end = 0;
constexpr uint16_t application = 4; // of a section
constexpr uint16_t resolution = 9;  // of an interface's times
} // namespace option

static constexpr uint32_t order_magic = 0x1A2B3C4D;
static constexpr size_t block_frame = 12;       // type, length, and the length again
static constexpr size_t section_body = 16;      // without options
static constexpr size_t packet_block_head = 20; // up to the packet's bytes
static constexpr size_t interface_limit = 4096; // those beyond are nobody's
// Of a block: far above what a gateway's messages take, far below what memory has.
static constexpr size_t block_limit = size_t{64} << 20;
static constexpr size_t read_step = size_t{64} << 10;

// --- Writing

static void put_le16(std::vector<uint8_t>& to, uint32_t value)
{
    to.push_back(static_cast<uint8_t>(value));
    to.push_back(static_cast<uint8_t>(value >> 8));
}

static void put_le32(std::vector<uint8_t>& to, uint32_t value)
{
    put_le16(to, value & UINT16_MAX);
    put_le16(to, value >> 16);
}

template <typename Range>
static void put_padded(std::vector<uint8_t>& to, const Range& bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
    to.resize((to.size() + 3) / 4 * 4);
}

template <typename Range>
static void put_option(std::vector<uint8_t>& to, uint16_t code, const Range& bytes)
{
    put_le16(to, code);
    put_le16(to, static_cast<uint32_t>(bytes.size()));
    put_padded(to, bytes);
}

// The length stands at both ends, and is known when all else is there.
static void begin_block(std::vector<uint8_t>& block, uint32_t type)
{
    block.clear();
    put_le32(block, type);
    put_le32(block, 0);
}

static void end_block(std::vector<uint8_t>& block)
{
    const auto size = static_cast<uint32_t>(block.size() + 4);
    put_le32(block, size);
    std::copy_n(block.end() - 4, 4, block.begin() + 4);
}

static void compose_section(std::vector<uint8_t>& block, std::string_view application)
{
    begin_block(block, block_type::section);
    put_le32(block, order_magic);
    put_le16(block, 1); // version 1.0
    put_le16(block, 0);
    put_le32(block, UINT32_MAX); // of a length that is not known
    put_le32(block, UINT32_MAX);
    put_option(block, option::application, application);
    put_option(block, option::end, std::string_view{});
    end_block(block);
}

static void compose_interface(std::vector<uint8_t>& block)
{
    begin_block(block, block_type::interface);
    put_le16(block, upper_pdu_link_type);
    put_le16(block, 0);
    put_le32(block, 0);                                              // packets are whole
    put_option(block, option::resolution, std::string_view{"\x09"}); // ns
    put_option(block, option::end, std::string_view{});
    end_block(block);
}

pcapng_writer::pcapng_writer(byte_sink& sink, std::string_view application) : m_sink(sink)
{
    compose_section(m_block, application);
    m_sink.write(m_block);
    compose_interface(m_block);
    m_sink.write(m_block);
}

bool pcapng_writer::write(const tap_message& message)
{
    const std::vector<uint8_t> packet = compose_packet(message);
    if (packet.size() > block_limit - block_frame - packet_block_head - 3 ||
        message.topic.size() > UINT16_MAX)
        return false;
    const auto size = static_cast<uint32_t>(packet.size());
    begin_block(m_block, block_type::enhanced_packet);
    put_le32(m_block, 0); // the interface
    put_le32(m_block, static_cast<uint32_t>(message.head.clock_ns >> 32));
    put_le32(m_block, static_cast<uint32_t>(message.head.clock_ns));
    put_le32(m_block, size);
    put_le32(m_block, size);
    put_padded(m_block, packet);
    end_block(m_block);
    m_sink.write(m_block);
    return true;
}

// --- Reading

uint16_t pcapng_reader::load16(bytes_view bytes, size_t at) const
{
    return m_is_big_endian ? load_be16(bytes, at) : load_le16(bytes, at);
}

uint32_t pcapng_reader::load32(bytes_view bytes, size_t at) const
{
    return m_is_big_endian ? load_be32(bytes, at) : load_le32(bytes, at);
}

reading pcapng_reader::damaged(const char* why)
{
    m_reason = why;
    return reading::damaged;
}

// A section's first field says in which order even its length is.
reading pcapng_reader::read_section_order()
{
    m_body.resize(4);
    if (m_source.read(m_body) < 4)
        return reading::cut;
    m_is_big_endian = load_be32(m_body, 0) == order_magic;
    if (!m_is_big_endian && load_le32(m_body, 0) != order_magic)
        return damaged("a section in no known byte order");
    return reading::message;
}

// Up to `size` bytes of a body, of which some may be there; and the length behind it.
reading pcapng_reader::read_body(size_t size)
{
    const size_t wanted = size + 4;
    while (m_body.size() < wanted) {
        const size_t had = m_body.size();
        const size_t step = std::min(wanted - had, read_step);
        m_body.resize(had + step);
        if (m_source.read(bytes_span{m_body}.subspan(had)) < step)
            return reading::cut;
    }
    if (load32(m_body, size) != size + block_frame)
        return damaged("the two lengths of a block differ");
    m_body.resize(size);
    return reading::message;
}

reading pcapng_reader::read_block()
{
    uint8_t head[8];
    const size_t taken = m_source.read(head);
    if (taken < sizeof head)
        return taken == 0 && m_has_section ? reading::end : reading::cut;
    m_body.clear();
    const bool is_section = load_le32(head, 0) == block_type::section;
    if (!is_section && !m_has_section)
        return damaged("this is no pcapng file");
    if (is_section)
        if (const reading state = read_section_order(); state != reading::message)
            return state;
    m_has_section = true;
    m_type = load32(head, 0);
    const uint32_t length = load32(head, 4);
    if (length % 4 != 0 || length > block_limit || length < block_frame + (is_section ? section_body : 0))
        return damaged("a block of an impossible length");
    return read_body(length - block_frame);
}

void pcapng_reader::note_interface()
{
    const bool has_room = m_is_ours.size() < interface_limit && m_body.size() >= 8;
    if (has_room)
        m_is_ours.push_back(load16(m_body, 0) == upper_pdu_link_type);
}

bool pcapng_reader::parse_packet_block(tap_message& message)
{
    if (m_body.size() < packet_block_head)
        return false;
    const uint32_t interface = load32(m_body, 0);
    const uint32_t size = load32(m_body, 12);
    const bool is_ours = interface < m_is_ours.size() && m_is_ours[interface];
    if (!is_ours || size != load32(m_body, 16) || size > m_body.size() - packet_block_head)
        return false;
    return parse_packet(bytes_view{m_body}.subspan(packet_block_head, size), message);
}

reading pcapng_reader::next(tap_message& message)
{
    while (m_state == reading::message) {
        m_state = read_block();
        if (m_state != reading::message)
            break;
        if (m_type == block_type::section)
            m_is_ours.clear();
        else if (m_type == block_type::interface)
            note_interface();
        else if (m_type == block_type::enhanced_packet) {
            if (parse_packet_block(message))
                return reading::message;
            ++m_passed_over;
        }
    }
    return m_state;
}

} // namespace rtls::recording
