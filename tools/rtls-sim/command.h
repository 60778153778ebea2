// command - what servers publish through the proxy, from the words that people type.
//
// Threads    Any; nothing is kept.
// Failures   Words that make no command give nothing, or say what is wrong with them.
#pragma once

#include "rtls-sim/downlink.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct parsed_command {
    bytes message;     // to publish; empty on an error
    std::string error; // what was wrong with the words
};

// One command, as words: `reboot 0102`, `conf 0102 role=1 x=1000`. Numbers that are bytes on the wire are
// hexadecimal (MACs, identifiers, CRCs, payloads), all others decimal.
parsed_command parse_command(const std::vector<std::string>& words);
// One line per command, for help texts.
std::string_view command_help();

// Cuts a line into words.
std::vector<std::string> split_words(std::string_view line);

// "GITID:CRC:SIZE[:PAGESIZE]", the first two hexadecimal.
struct ota_request {
    ota_order order;
    std::optional<uint16_t> page_size;
};
std::optional<ota_request> parse_ota_request(std::string_view text);

// The command that carries one page of an image to a node; the last page is filled up with FF.
bytes page_command(const mac_bytes& node, uint8_t seq, const ota_page_id& id, view image);

} // namespace sim
