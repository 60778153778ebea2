// slip - see slip.h. Nearly all bytes on the link are ordinary, so both directions look for special
// ones in words of eight bytes.
#include "wire/slip.h"

#include <bit>
#include <cstring>

namespace rtls {

static constexpr size_t word_size = sizeof(uint64_t);

static constexpr uint64_t in_every_byte(uint8_t value)
{
    return 0x0101010101010101U * value;
}

// The top bit of each byte of `word` that is special; every other bit clear. The sums cannot carry
// from one byte into the next, because the top bits are masked off before.
static constexpr uint64_t special_bytes(uint64_t word)
{
    constexpr uint64_t top_bits = in_every_byte(0x80);
    const uint64_t low_bits = word & ~top_bits;
    const uint64_t at_least_start = low_bits + in_every_byte(0x100 - slip_start);
    const uint64_t above_end = low_bits + in_every_byte(0x100 - (slip_end + 1));
    return word & at_least_start & ~above_end & top_bits;
}

static uint64_t load_word(const uint8_t* from)
{
    uint64_t word = 0;
    std::memcpy(&word, from, word_size);
    return word;
}

// Index in memory of the first byte marked in a mask that is not 0.
static size_t first_marked(uint64_t mask)
{
    const int bits =
        std::endian::native == std::endian::little ? std::countr_zero(mask) : std::countl_zero(mask);
    return static_cast<size_t>(bits) / 8;
}

// Writes ESC in any case and keeps it only when needed: whether a byte is special is as good as random,
// and a mispredicted branch would cost more than the store.
static uint8_t* put_byte(uint8_t b, uint8_t* out)
{
    *out = slip_esc;
    out += slip_is_special(b) ? 1 : 0;
    *out = b;
    return out + 1;
}

size_t slip_encode(bytes_view message, uint8_t* out)
{
    uint8_t* to = out;
    *to++ = slip_start;
    const uint8_t* from = message.data();
    size_t left = message.size();
    for (; left >= word_size; from += word_size, left -= word_size) {
        if (special_bytes(load_word(from)) == 0) {
            std::memcpy(to, from, word_size);
            to += word_size;
        } else {
            for (size_t i = 0; i < word_size; ++i)
                to = put_byte(from[i], to);
        }
    }
    for (; left > 0; ++from, --left)
        to = put_byte(*from, to);
    *to++ = slip_end;
    return static_cast<size_t>(to - out);
}

size_t slip_ordinary_run(bytes_view bytes)
{
    size_t at = 0;
    for (; at + word_size <= bytes.size(); at += word_size)
        if (const uint64_t mask = special_bytes(load_word(bytes.data() + at)); mask != 0)
            return at + first_marked(mask);
    while (at < bytes.size() && !slip_is_special(bytes[at]))
        ++at;
    return at;
}

} // namespace rtls
