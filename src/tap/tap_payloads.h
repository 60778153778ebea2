// tap_payloads - payloads on their way to the subscribers, and how much memory the large ones of them hold.
//
// The library bounds a subscriber's queue by messages, whatever their size. Reports, and the bytes of a connection, are
// small; commands may have a quarter of a megabyte each. So those are counted while any queue holds them, and there
// is a bound for all of them together.
// Ownership  Outlives the library's context, which lets go of what it still holds when it ends.
// Threads    copy(): the socket's. What a copy holds is given back on any thread.
// Blocking   Nothing waits.
// Failures   A copy that is not made: memory is short, or the bound is reached. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "base/message_part.h"

#include <atomic>
#include <cstddef>

namespace rtls {

class tap_payloads {
public:
    static constexpr size_t largest_small = size_t{8} * 1024; // what a connection reads or writes at once
    static constexpr size_t large_bound = size_t{128} * 1024 * 1024;

    // Check is_made().
    message_part copy(bytes_view payload) noexcept
    {
        if (payload.size() <= largest_small) [[likely]]
            return message_part{payload};
        return copy_large(payload);
    }
    // Bytes of large ones that some queue holds.
    size_t held() const noexcept { return m_held.load(std::memory_order_relaxed); }

private:
    message_part copy_large(bytes_view payload) noexcept;

    std::atomic<size_t> m_held{0};
};

} // namespace rtls
