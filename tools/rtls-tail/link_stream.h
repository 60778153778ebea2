// link_stream - the messages in one direction of a bridge's connection, out of its bytes as they were read.
//
// Ownership  Owns the message that has begun.
// Threads    One.
// Failures   Of memory: std::bad_alloc. Bytes outside of messages are passed over, and so is all of a message beyond
//            any size (1 MiB). Without a byte between its ends it is none.
#pragma once

#include "base/bytes.h"

#include <vector>

namespace tail {

class link_stream {
public:
    // The messages that end in these bytes, without their byte stuffing.
    std::vector<std::vector<uint8_t>> feed(rtls::bytes_view bytes);

private:
    std::vector<uint8_t> m_message;
    bool m_is_inside = false;
    bool m_is_escaped = false;
};

} // namespace tail
