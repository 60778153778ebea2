// fuzzing - what the targets share: a property that must hold, and an input that is taken piece by piece.
//
// Ownership  An input is the fuzzer's; views into it live as long as the call.
// Threads    One: the fuzzer's.
// Failures   A property that does not hold ends the process, with the input at hand kept by the fuzzer.
#pragma once

#include "base/bytes.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace rtls::fuzzing {

using bytes_t = std::vector<uint8_t>;

inline void require(bool condition)
{
    if (!condition)
        std::abort();
}

// The bytes of one run. Beyond their end there are zeros, so that every input means something.
class input {
public:
    input(const uint8_t* data, size_t size) : m_rest{data, size} {}

    bool empty() const { return m_rest.empty(); }
    uint8_t u8()
    {
        const bytes_view one = view(1);
        return one.empty() ? uint8_t{0} : one[0];
    }
    uint16_t be16()
    {
        const unsigned high = u8();
        return static_cast<uint16_t>(high << 8 | u8());
    }
    uint32_t be32()
    {
        const uint32_t high = be16();
        return high << 16 | be16();
    }
    // The next `size` bytes, or what there is of them.
    bytes_view view(size_t size)
    {
        const bytes_view taken = m_rest.first(std::min(size, m_rest.size()));
        m_rest = m_rest.subspan(taken.size());
        return taken;
    }
    bytes_view rest() { return view(m_rest.size()); }
    // A copy, in memory that ends where it ends: the sanitizer sees what is read past it.
    bytes_t copy(size_t size)
    {
        const bytes_view taken = view(size);
        return {taken.begin(), taken.end()};
    }
    // The same as text.
    std::string text(size_t size)
    {
        const bytes_view taken = view(size);
        return {taken.begin(), taken.end()};
    }
    // Up to the end of the line, which is taken, too.
    std::string line()
    {
        const auto end = std::ranges::find(m_rest, uint8_t{'\n'});
        std::string taken = text(static_cast<size_t>(end - m_rest.begin()));
        view(1);
        return taken;
    }

private:
    bytes_view m_rest;
};

// A C string's characters, with the end, in memory that ends there.
inline std::vector<char> terminated(const std::string& text)
{
    const char* begin = text.c_str(); // a zero within ends it, too
    std::vector<char> copy(begin, begin + std::char_traits<char>::length(begin) + 1);
    copy.shrink_to_fit();
    return copy;
}

} // namespace rtls::fuzzing
