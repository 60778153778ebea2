// report_texts - the texts and frames that node reports become on their way to the servers.
//
// Pure functions: no socket, no clock, no memory of their own. The servers take the texts apart by their
// exact wording and padding. Messages are given as received, and may be cut short: every reader
// looks at the bytes that are there before it looks at what they say.
// Threads    Any. Nothing waits.
// Bytes      Messages are big-endian behind their header (wire/messaging.h).
// Failures   Nothing throws. A message that is cut short gives nothing, or must be refused by its extent
//            before; debug builds catch who has not.
#pragma once

#include "base/bytes.h"
#include "core/ctimestamp.h"
#include "wire/messaging.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace rtls {

// --- the frame in front of each report to the message handler

using timestamp_bytes = std::array<uint8_t, report_timestamp::size>;
timestamp_bytes timestamp_frame(uint32_t seconds, uint16_t milliseconds);

// The MAC of the node that a report to the message handler is from: its place depends on the report's type. Of less
// than a MAC, all there is.
bytes_view report_sender(bytes_view report);

// --- the management line: "@win_management {" time "," text "}"

// Room for the part before the text, with the widest numbers.
constexpr size_t management_head_limit = 72;
constexpr char management_tail = '}';
// Writes the part before the text, unterminated, and returns its length. The numbers are padded with
// blanks on the left, which the servers' readers skip.
size_t write_management_head(tav_timestamp_t time, std::span<char, management_head_limit> out);

// --- route requests

// The number of requesters that a request of this length, not below route_request::least_len, lists.
constexpr size_t route_requesters(uint16_t total_len)
{
    return (total_len - route_request::fixed_len) / route_request::entry_size;
}
// The bytes of the message that a request with this many requesters is read from.
constexpr size_t route_request_extent(size_t requesters)
{
    return route_request::requesters + requesters * route_request::entry_size;
}
// The text's length, terminating zero included.
size_t route_request_text_size(size_t requesters);
// Writes the terminated text into `out` of at least that size. `message` has the extent above.
void write_route_request_text(bytes_view message, size_t requesters, std::span<char> out);

// --- UL-TDOA data

constexpr size_t ul_tdoa_text_limit = 400;

struct ul_tdoa_board {
    uint8_t version;
    uint8_t revision;
    uint16_t flags;
    uint32_t firmware_id;
    uint16_t batt_voltage;
};

// One measurement. The MACs (6 bytes each) point into the message it was read from.
struct ul_tdoa_report {
    const uint8_t* tag_mac;
    const uint8_t* responder_mac;
    const uint8_t* reporter_mac;
    uint16_t pe_seq_no;
    int32_t range_mm;
    uint8_t tag_lqi;
    uint8_t resp_anchor_lqi;
    std::optional<ul_tdoa_board> board;
    std::optional<uint8_t> percent_of_charge;
};

// The bytes of the message that a measurement of this total_len is read from.
size_t ul_tdoa_extent(uint16_t total_len);
// The measurement, or nothing when the message ends before the fields that its total_len promises.
std::optional<ul_tdoa_report> read_ul_tdoa(bytes_view message);
// Writes the terminated text and returns its length without the zero; at most 301 characters.
size_t write_ul_tdoa_text(const ul_tdoa_report& report, std::span<char, ul_tdoa_text_limit> out);

} // namespace rtls
