// tap_interest - what the tap's subscribers take, by class: what nobody takes is not composed.
//
// The library tells the first subscription to a topic and the end of the last one, so that each stands here once.
// The end of one that was never begun, which only a peer without the library sends, changes nothing unless somebody
// else has subscribed to the very same topic.
// Ownership  Copies of the topics.
// Threads    None of its own: the WIN server's thread.
// Blocking   Nothing waits.
// Failures   A topic that memory is too short for keeps its classes taken for good. Nothing throws.
#pragma once

#include "tap/tap_format.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>

namespace rtls {

class tap_interest {
public:
    // A message of the library's: 1 and a topic that is subscribed to from now on, or 0 and one that is no longer.
    // Others, which any peer may send, are left out.
    void note(std::span<const uint8_t> message) noexcept;
    // Nobody has subscribed.
    void clear() noexcept;

    // Whether somebody takes topics of the class, or of any.
    bool has(tap_class of) const noexcept { return (m_taken & bit_of(of)) != 0; }
    bool has_any() const noexcept { return m_taken != 0; }
    // Different topics.
    size_t size() const noexcept { return m_topics.size(); }

private:
    static constexpr uint8_t bit_of(tap_class of)
    {
        return static_cast<uint8_t>(1U << static_cast<unsigned>(of));
    }
    void begin(std::string_view topic);
    void end(std::string_view topic);
    void count(std::string_view topic, int change) noexcept;

    std::set<std::string, std::less<>> m_topics;
    std::array<size_t, tap_classes> m_of_class{}; // topics
    uint8_t m_taken = 0;                          // a bit a class
};

} // namespace rtls
