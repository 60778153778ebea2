// slip - the byte stuffing of the WIN link: START message END, with special bytes behind ESC.
//
// Ownership  None: bytes and room are the caller's.
// Threads    Any; pure functions.
// Failures   None. That there is room is the caller's duty.
#pragma once

#include "base/bytes.h"

#include <cstddef>
#include <cstdint>

namespace rtls {

constexpr uint8_t slip_start = 0xF5;
constexpr uint8_t slip_esc = 0xF6; // the next byte is taken literally; it is not transformed
constexpr uint8_t slip_end = 0xF7;

constexpr bool slip_is_special(uint8_t b)
{
    return b >= slip_start && b <= slip_end;
}

// The most bytes that a message of `size` bytes can take when framed.
constexpr size_t slip_encoded_limit(size_t size)
{
    return 2 * (size + 1);
}

// Frames `message` into `out`, which has room for slip_encoded_limit(message.size()) bytes; returns
// the number of bytes written.
size_t slip_encode(bytes_view message, uint8_t* out);

// The number of bytes before the first special one. Looks at eight bytes at a time.
size_t slip_ordinary_run(bytes_view bytes);

} // namespace rtls
