// packet - a message of the tap as one packet of a capture, and back.
//
// A packet of the link type "upper PDU" says in tags whose it is; behind them stand the topic, the head and the
// payload's frames, each behind its length.
// Ownership  Values.
// Threads    Any: pure functions.
// Bytes      Network byte order.
// Failures   A packet that is not the tap's, or that ends before its lengths say: false. Of memory:
//            std::bad_alloc, never for more than the packet has.
#pragma once

#include "recording/tap_message.h"

#include <vector>

namespace rtls::recording {

constexpr uint16_t upper_pdu_link_type = 252;

std::vector<uint8_t> compose_packet(const tap_message& message);
// `message` is whole, or as it was.
bool parse_packet(bytes_view packet, tap_message& message);

} // namespace rtls::recording
