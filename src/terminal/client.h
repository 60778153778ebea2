// client - the record of one operator connected to the terminal port.
//
// Ownership  A record owns its identity frame and its filter. The terminal server's table owns the records.
// Threads    Terminal thread; no lock. Nothing waits.
// Failures   None: destroying cannot fail, and null is taken.
#pragma once

#include "base/czmq_ptr.h"
#include "core/tcp_silence.h"
#include "terminal/filter.h"

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace rtls {

typedef struct TERMINAL_CLIENT {
    zframe_ptr id;                          // copy of the stream socket's routing identity
    std::optional<std::string> grep_string; // may name a pattern that failed to compile
    filter_ptr preg;                        // null: no filter, every line passes
    uint8_t subscribed = 0;                 // 1: receives the debug stream
    bool takes_frames = false;              // the last one was taken: it is worth waiting for
    sockaddr_in client_addr = {};           // zero when unknown

    // While an image is being fetched for this operator, what he types waits: his answers keep their order.
    // So does his leave: what he had sent before is done all the same.
    bool is_fetching = false;
    bool has_left = false;               // meanwhile
    std::deque<std::string> typed_ahead; // an empty one: his leave
    size_t typed_ahead_bytes = 0;
    size_t refused_ahead = 0; // commands beyond what may wait, and all that came after

    int fd = -1; // the connection's descriptor as seen at connect, or -1; closed by the library, not by us

    // Whether the other end has vanished while something was sent to it. Operators come by worse ways than
    // servers, and nobody waits for them.
    static constexpr int64_t longest_silence_ms = 30'000;
    tcp_silence silence{longest_silence_ms};

    // Whether fd and client_addr are known to have been this connection's own when they were asked for.
    bool is_peer_proven = false;
    uint64_t drained_before = 0; // how often the socket had been drained until then
    size_t events = 1;           // received, that one included, as far as they are counted
} TERMINAL_CLIENT_t;

// Frees the record, made with new, and all it owns; leaves null. Takes null. (CZMQ's item destructor.)
void terminal_client_item_destructor(void** item);

} // namespace rtls
