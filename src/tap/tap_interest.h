// tap_interest - what the tap's subscribers take, by class: what nobody takes is not composed.
//
// The library tells the first subscription to a topic and the end of the last one, so that each stands here once.
// It tells of an end, too, when a peer ends what it never began, which only one without the library does: whether
// others have that very topic does not show. So every end is in doubt until the library has been asked (tap/tap_socket),
// and only what it answers is believed: a connection that is gone leaves no trace of who has said something.
//
// Nobody honest takes topics that are longer than any of ours, or thousands of them. They are noted all the same, for
// as long as the library has them: somebody else who takes one is not told once more.
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
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace rtls {

// Who has caused a message.
enum class tap_voice : uint8_t {
    peer,    // one that is known, and can be cut off
    unknown, // the library, by itself; or a peer that has gone
    answer,  // the library, as it was asked
};

// What a message of a subscriber's is.
enum class tap_note : uint8_t {
    fine,
    doubtful_end, // a topic may be over, which is still taken as far as is known here: ask the library, which this is
                  // told for once until it has answered
    foul,         // a topic too long, one too many, the end of what nobody has, or no subscription at all
};

class tap_interest {
public:
    static constexpr size_t longest_topic = 64;
    static constexpr size_t most_topics = 4096; // of all subscribers together

    // A message of the library's: 1 and a topic that is subscribed to from now on, or 0 and one that is no longer; or
    // whatever else a peer has sent.
    tap_note note(std::span<const uint8_t> message, tap_voice by) noexcept;
    // The library's answer about the topic begins, or never comes: its next end is doubtful again. What is no topic of
    // ours makes no difference.
    void settle(std::string_view topic) noexcept;
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
    tap_note end(std::string_view topic, tap_voice by) noexcept;
    void count(std::string_view topic, int change) noexcept;

    std::map<std::string, bool, std::less<>> m_topics; // and whether the library is being asked about it
    std::array<size_t, tap_classes> m_of_class{};      // topics
    uint8_t m_taken = 0;                               // a bit a class
};

} // namespace rtls
