#include "recording/pcapng.h"

#include "impl/block_format.h"

#include <algorithm>

namespace rtls::recording {

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
    put_le32(block, section_order_magic);
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

void pcapng_reader::note_interface()
{
    const bool has_room = m_is_ours.size() < block_reader::interface_limit && m_blocks.body().size() >= 8;
    if (has_room)
        m_is_ours.push_back(m_blocks.load16(0) == upper_pdu_link_type);
}

bool pcapng_reader::parse_packet_block(tap_message& message)
{
    const bytes_view body = m_blocks.body();
    if (body.size() < packet_block_head)
        return false;
    const uint32_t interface = m_blocks.load32(0);
    const uint32_t size = m_blocks.load32(12);
    const bool is_ours = interface < m_is_ours.size() && m_is_ours[interface];
    if (!is_ours || size != m_blocks.load32(16) || size > body.size() - packet_block_head)
        return false;
    return parse_packet(body.subspan(packet_block_head, size), message);
}

reading pcapng_reader::next(tap_message& message)
{
    reading state = reading::end;
    while ((state = m_blocks.next()) == reading::message) {
        if (m_blocks.type() == block_type::section)
            m_is_ours.clear();
        else if (m_blocks.type() == block_type::interface)
            note_interface();
        else if (m_blocks.type() == block_type::enhanced_packet) {
            if (parse_packet_block(message))
                return reading::message;
            ++m_passed_over;
        }
    }
    return state;
}

} // namespace rtls::recording
