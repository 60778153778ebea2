#include "tap/tap_event.h"

#include "base/hex.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace rtls {

static constexpr size_t longest_text = 1000; // escaped
static constexpr size_t longest_escape = 6;  // \u00ff

tap_event::tap_event(std::string_view name) noexcept
{
    append("{\"event\":\"");
    append(name);
    append("\"");
    close();
}

void tap_event::append(std::string_view text) noexcept
{
    const size_t size = std::min(text.size(), m_text.size() - 1 - m_size);
    std::memcpy(m_text.data() + m_size, text.data(), size);
    m_size += size;
}

void tap_event::append_escaped(std::string_view text) noexcept
{
    const size_t end = std::min(m_size + longest_text, m_text.size() - 2);
    for (const char character : text) {
        if (m_size + longest_escape > end)
            return;
        const auto byte = static_cast<uint8_t>(character);
        if (byte >= ' ' && byte < 0x7F && byte != '"' && byte != '\\') {
            m_text[m_size++] = character;
            continue;
        }
        append("\\u00");
        m_size = static_cast<size_t>(write_hex({&byte, 1}, m_text.data() + m_size) - m_text.data());
    }
}

void tap_event::name_member(std::string_view name) noexcept
{
    append(",\"");
    append(name);
    append("\":");
}

tap_event& tap_event::text(std::string_view name, std::string_view value) noexcept
{
    name_member(name);
    append("\"");
    append_escaped(value);
    append("\"");
    close();
    return *this;
}

tap_event& tap_event::hex(std::string_view name, bytes_view value) noexcept
{
    std::array<char, 16> digits; // not cleared: as much is read as is written
    const char* end = write_hex(value.first(std::min(value.size(), digits.size() / 2)), digits.data());
    return text(name, {digits.data(), static_cast<size_t>(end - digits.data())});
}

tap_event& tap_event::number(std::string_view name, uint64_t value) noexcept
{
    std::array<char, 20> digits; // not cleared: as much is read as is written
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    name_member(name);
    append({digits.data(), static_cast<size_t>(end - digits.data())});
    close();
    return *this;
}

} // namespace rtls
