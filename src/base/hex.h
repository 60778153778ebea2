// hex - bytes as hexadecimal text, and back; table-driven.
//
// Threads    Any. Nothing waits.
// Failures   Of memory: to_hex throws std::bad_alloc, hex_text stays empty. Of text: logged.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <string_view>

namespace rtls {

// Upper-case hex, two digits a byte, no separators.
std::string to_hex(std::span<const uint8_t> bytes);

// Writes 2 * bytes.size() upper-case digits to `out`, unterminated, and returns the position after them.
char* write_hex(std::span<const uint8_t> bytes, char* out);

// Bytes of any number as upper-case hex; empty when memory is short. Costly: make one only for a line
// that is wanted.
class hex_text {
public:
    explicit hex_text(std::span<const uint8_t> bytes) : m_text(new (std::nothrow) char[2 * bytes.size() + 1])
    {
        if (m_text)
            *write_hex(bytes, m_text.get()) = '\0';
    }
    bool is_made() const { return m_text != nullptr; }
    const char* c_str() const { return m_text ? m_text.get() : ""; }

private:
    std::unique_ptr<char[]> m_text;
};

// Decodes hexadecimal text, two digits a byte, into `pret` and returns the number of bytes written;
// 0 and a log line at the first character that is no hex digit. A trailing odd digit is dropped.
// Writes up to max_size + 1 bytes: callers that size their buffers by a count of pairs rely on the
// text's own end, and peers on trailing garbage being noticed.
ssize_t string_to_uint8_arr(const char* hex_string, uint8_t* pret, ssize_t max_size);

// Decodes the whole text into `out`, which has room for text.size() / 2 bytes. False, with the log line of the
// above, at the first character that is no hex digit: a trailing odd digit, which is dropped, has to be one too.
bool hex_to_bytes(std::string_view text, uint8_t* out);

} // namespace rtls
