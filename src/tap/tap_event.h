// tap_event - what happened, as a flat JSON object: {"event":"bridge_closed","bridge":"0012AB0000000001",...}
//
//     server.tap.publish(tap_event{"bridge_closed"}.hex("bridge", mac).text("cause", "peer"));
//
// Ownership  A value; names and texts stay the caller's.
// Threads    None of its own.
// Failures   A text that there is no room for is cut: what is longer than a thousand characters. Nothing throws.
#pragma once

#include "base/bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace rtls {

class tap_event {
public:
    explicit tap_event(std::string_view name) noexcept;

    // One more member. A text's quotation marks, backslashes and what is no plain ASCII are escaped, byte by byte.
    tap_event& text(std::string_view name, std::string_view value) noexcept;
    tap_event& hex(std::string_view name, bytes_view value) noexcept; // upper case; eight bytes at most
    tap_event& number(std::string_view name, uint64_t value) noexcept;

    // The object, which is whole at any time.
    bytes_view bytes() const noexcept
    {
        return {reinterpret_cast<const uint8_t*>(m_text.data()), m_size + 1};
    }

private:
    void name_member(std::string_view name) noexcept;
    void append(std::string_view text) noexcept;
    void append_escaped(std::string_view text) noexcept;
    void close() noexcept { m_text[m_size] = '}'; }

    // Room for the longest text, the other members, and the end: members have names of ours and few digits.
    std::array<char, 1536> m_text; // not cleared: what is read is written
    size_t m_size = 0;             // without the brace at the end
};

} // namespace rtls
