#include "recording/capture.h"

#include "impl/block_format.h"

#include <algorithm>
#include <cmath>

namespace rtls::recording {

namespace pcap_head {
constexpr size_t magic = 0;      // u32; with which the order is told
constexpr size_t link_type = 20; // u32, of which the upper half says how a checksum is kept
constexpr size_t size = 24;
} // namespace pcap_head

namespace record_head {
constexpr size_t seconds = 0;  // u32
constexpr size_t fraction = 4; // u32
constexpr size_t kept = 8;     // u32; how many bytes follow
constexpr size_t size = 16;    // with what it was on the network
} // namespace record_head

static constexpr uint32_t magic_us = 0xA1B2C3D4;
static constexpr uint32_t magic_ns = 0xA1B23C4D;
static constexpr size_t packet_limit = size_t{256} << 10; // what captures keep at most
static constexpr uint64_t second_ns = 1'000'000'000;
static constexpr uint8_t in_us = 6;
static constexpr uint8_t in_ns = 9;

bytes_view capture_reader::begun_source::begin()
{
    if (m_size == 0)
        m_size = m_rest.read(m_first);
    return bytes_view{m_first}.first(m_size);
}

size_t capture_reader::begun_source::read(bytes_span room)
{
    const size_t again = std::min(room.size(), m_size - m_read);
    store_bytes(room, 0, bytes_view{m_first}.subspan(m_read, again));
    m_read += again;
    return again + (again < room.size() ? m_rest.read(room.subspan(again)) : 0);
}

// 10 to the power of -n seconds; with the highest bit, 2 to that power.
static uint64_t clock_of(uint64_t ticks, uint8_t resolution)
{
    const unsigned power = resolution & 0x7F;
    if (resolution == power) {
        for (unsigned n = power; n < in_ns; ++n)
            ticks *= 10;
        for (unsigned n = in_ns; n < power && ticks > 0; ++n)
            ticks /= 10;
        return ticks;
    }
    if (power >= 64)
        return 0;
    const uint64_t seconds = ticks >> power;
    const auto rest = static_cast<double>(ticks - (seconds << power));
    return seconds * second_ns + static_cast<uint64_t>(std::ldexp(rest, -static_cast<int>(power)) * 1e9);
}

uint32_t capture_reader::load32(bytes_view bytes, size_t at) const
{
    return m_is_big_endian ? load_be32(bytes, at) : load_le32(bytes, at);
}

reading capture_reader::damaged(const char* why)
{
    m_reason = why;
    return reading::damaged;
}

// --- pcap

reading capture_reader::begin_pcap()
{
    std::array<uint8_t, pcap_head::size> head{};
    if (m_begun.read(head) < head.size())
        return reading::cut;
    m_is_big_endian =
        load_be32(head, pcap_head::magic) == magic_us || load_be32(head, pcap_head::magic) == magic_ns;
    m_of_pcap.link_type = static_cast<uint16_t>(load32(head, pcap_head::link_type));
    m_of_pcap.resolution = load32(head, pcap_head::magic) == magic_ns ? in_ns : in_us;
    return reading::message;
}

reading capture_reader::next_of_pcap(captured_packet& packet)
{
    std::array<uint8_t, record_head::size> head{};
    const size_t taken = m_begun.read(head);
    if (taken < head.size())
        return taken == 0 ? reading::end : reading::cut;
    const size_t size = load32(head, record_head::kept);
    if (size > packet_limit)
        return damaged("a packet of an impossible length");
    packet.link_type = m_of_pcap.link_type;
    packet.clock_ns = load32(head, record_head::seconds) * second_ns +
                      clock_of(load32(head, record_head::fraction), m_of_pcap.resolution);
    packet.bytes.resize(size);
    return m_begun.read(packet.bytes) < size ? reading::cut : reading::message;
}

// --- pcapng

void capture_reader::note_interface()
{
    const bytes_view body = m_blocks.body();
    if (m_interfaces.size() >= block_reader::interface_limit || body.size() < interface_body)
        return;
    interface& made = m_interfaces.emplace_back();
    made.link_type = m_blocks.load16(0);
    for (size_t at = interface_body; at + 4 <= body.size();) {
        const uint16_t code = m_blocks.load16(at);
        const size_t size = m_blocks.load16(at + 2);
        if (code == option::end || size > body.size() - at - 4)
            return;
        if (code == option::resolution && size >= 1)
            made.resolution = body[at + 4];
        at += 4 + (size + 3) / 4 * 4;
    }
}

// What an interface of its own section brought.
bool capture_reader::take_packet(captured_packet& packet) const
{
    const bytes_view body = m_blocks.body();
    if (body.size() < packet_block_head)
        return false;
    const uint32_t number = m_blocks.load32(0);
    const size_t size = m_blocks.load32(12);
    if (number >= m_interfaces.size() || size > body.size() - packet_block_head)
        return false;
    packet.link_type = m_interfaces[number].link_type;
    packet.clock_ns =
        clock_of(uint64_t{m_blocks.load32(4)} << 32 | m_blocks.load32(8), m_interfaces[number].resolution);
    const bytes_view bytes = body.subspan(packet_block_head, size);
    packet.bytes.assign(bytes.begin(), bytes.end());
    return true;
}

reading capture_reader::next_of_pcapng(captured_packet& packet)
{
    reading state = reading::end;
    while ((state = m_blocks.next()) == reading::message) {
        if (m_blocks.type() == block_type::section)
            m_interfaces.clear();
        else if (m_blocks.type() == block_type::interface)
            note_interface();
        else if (m_blocks.type() == block_type::enhanced_packet && take_packet(packet))
            break;
    }
    m_reason = m_blocks.reason();
    return state;
}

// --- Either

reading capture_reader::begin()
{
    const bytes_view first = m_begun.begin();
    if (first.size() < 4)
        return reading::cut;
    const uint32_t magic = load_be32(first, 0);
    const uint32_t swapped = load_le32(first, 0);
    if (magic == block_type::section) {
        m_format = format::pcapng;
        return reading::message;
    }
    if (magic != magic_us && magic != magic_ns && swapped != magic_us && swapped != magic_ns)
        return damaged("this is neither a pcapng nor a pcap file");
    m_format = format::pcap;
    return begin_pcap();
}

reading capture_reader::next(captured_packet& packet)
{
    if (m_format == format::unknown && m_state == reading::message)
        m_state = begin();
    if (m_state == reading::message)
        m_state = m_format == format::pcap ? next_of_pcap(packet) : next_of_pcapng(packet);
    return m_state;
}

} // namespace rtls::recording
