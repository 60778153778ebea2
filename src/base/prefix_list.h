// prefix_list - who is let in: a list of IPv4 networks, or of MACs and ranges of them.
//
// Ownership  A value.
// Threads    Pure: nothing waits, logs or knows a clock.
// Failures   What cannot be read gives no list at all: a door must not stand open because of a misprint.
//            Parsing throws std::bad_alloc.
#pragma once

#include "base/bytes.h"

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

// Byte strings that begin with the bits of one of the entries. Empty: none does.
class prefix_list {
public:
    static constexpr size_t longest = 8; // bytes

    // The first `bits` bits of `value`; those behind them do not count.
    void add(bytes_view value, unsigned int bits);
    bool empty() const noexcept { return m_entries.empty(); }
    // Whether `value` (as long as the entries are) begins with one of them. The cost grows with the list.
    bool contains(bytes_view value) const noexcept;
    bool contains(in_addr address) const noexcept;

private:
    struct entry {
        std::array<uint8_t, longest> value;
        std::array<uint8_t, longest> mask;
    };
    std::vector<entry> m_entries;
};

// The words of a list: between them are blanks, tabs and commas.
std::vector<std::string> words_of(std::string_view text);

// IPv4 networks as RFC 4632 writes them, with commas or blanks between: "10.0.0.0/8, 192.168.1.7". An address
// alone is a network of its own. Nothing when a word is no network, or there is none.
std::optional<prefix_list> parse_networks(std::string_view text);

// MACs of 8 bytes, 16 hex digits with or without colons, and ranges of them, by their first bits:
// "0012AB0000000001, 00:12:ab:00:00:00:00:00/24".
std::optional<prefix_list> parse_macs(std::string_view text);

} // namespace rtls
