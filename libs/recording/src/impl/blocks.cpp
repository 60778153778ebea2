#include "recording/blocks.h"

#include "impl/block_format.h"

#include <algorithm>

namespace rtls::recording {

static constexpr size_t read_step = size_t{64} << 10;

uint16_t block_reader::load16(size_t at) const
{
    return m_is_big_endian ? load_be16(m_body, at) : load_le16(m_body, at);
}

uint32_t block_reader::load32(size_t at) const
{
    return load32(m_body, at);
}

uint32_t block_reader::load32(bytes_view bytes, size_t at) const
{
    return m_is_big_endian ? load_be32(bytes, at) : load_le32(bytes, at);
}

reading block_reader::damaged(const char* why)
{
    m_reason = why;
    return reading::damaged;
}

// A section's first field says in which order even its length is.
reading block_reader::read_section_order()
{
    m_body.resize(4);
    if (m_source.read(m_body) < 4)
        return reading::cut;
    m_is_big_endian = load_be32(m_body, 0) == section_order_magic;
    if (!m_is_big_endian && load_le32(m_body, 0) != section_order_magic)
        return damaged("a section in no known byte order");
    return reading::message;
}

// Up to `size` bytes of a body, of which some may be there; and the length behind it.
reading block_reader::read_body(size_t size)
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

reading block_reader::read_block()
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

reading block_reader::next()
{
    if (m_state == reading::message)
        m_state = read_block();
    return m_state;
}

} // namespace rtls::recording
