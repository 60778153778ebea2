// tap_format - what a message of the tap looks like: a topic, a head of fixed layout, and the frames that passed.
// docs/tap.md is for those who read it; a change that is more than another topic needs another version.
//
// Ownership  None: constants, and texts that are values.
// Threads    Any.
// Bytes      The head is in network byte order.
// Failures   None.
#pragma once

#include "base/hex.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace rtls {

// Each counts its own messages.
enum class tap_class : uint8_t { report, management, command, link_in, link_out, event, kinds };
inline constexpr size_t tap_classes = static_cast<size_t>(tap_class::kinds);

// What the topics of a class are, or, where a slash ends it, begin with.
inline constexpr std::array<std::string_view, tap_classes> tap_topics = {"report/",  "management", "command",
                                                                         "link/in/", "link/out/",  "event"};

enum class tap_direction : uint8_t { up, down, neither };

namespace tap_head {
constexpr size_t version = 0;    // u8
constexpr size_t direction = 1;  // u8
constexpr size_t reserved = 2;   // u16, zero
constexpr size_t connection = 4; // u32; zero: none
constexpr size_t number = 8;     // u64, within the class, from 1 on
constexpr size_t clock = 16;     // u64, nanoseconds since 1970
constexpr size_t size = 24;
static_assert(clock + 8 == size);
constexpr uint8_t present_version = 1;
} // namespace tap_head

// What all topics of the class begin with, then eight bytes at most as hex, or a short word and four.
class tap_topic {
public:
    explicit tap_topic(tap_class of) noexcept { append(tap_topics[static_cast<size_t>(of)]); }
    tap_topic(tap_class of, std::span<const uint8_t> mac) noexcept : tap_topic(of) { append_hex(mac); }

    void append(std::string_view text) noexcept
    {
        std::memcpy(m_text.data() + m_size, text.data(), text.size());
        m_size += text.size();
    }
    void append_hex(std::span<const uint8_t> bytes) noexcept
    {
        m_size = static_cast<size_t>(write_hex(bytes, m_text.data() + m_size) - m_text.data());
    }
    // What stands behind the beginning that all topics of the class have.
    std::string_view rest(tap_class of) const noexcept
    {
        return std::string_view{m_text.data(), m_size}.substr(tap_topics[static_cast<size_t>(of)].size());
    }
    std::span<const uint8_t> bytes() const noexcept
    {
        return {reinterpret_cast<const uint8_t*>(m_text.data()), m_size};
    }

private:
    std::array<char, 32> m_text; // not cleared: what is read is written
    size_t m_size = 0;
};

} // namespace rtls
