// dispatch_world - a gateway between a bridge on a real connection and two servers, and the frames that a bridge
// sends: for the benchmarks of what comes up.
//
// The upstream peers are in this process; emptied between batches, no queue of theirs is ever full. Debug
// sections are off and there is no broker, as in the field.
// Threads    The caller's own, which works as the WIN server's.
// Failures   What cannot be connected ends the program.
#pragma once

#include "bridged_gateway.h"
#include "support/hex_bytes.h"

#include <cstddef>
#include <string>
#include <vector>

namespace rtls {

class dispatch_world : public bridged_gateway {
public:
    // Below the depth of every queue.
    static constexpr size_t batch = 250;

    explicit dispatch_world(size_t bridges = 1);
    ~dispatch_world();
    dispatch_world(const dispatch_world&) = delete;
    dispatch_world& operator=(const dispatch_world&) = delete;

    // Known nodes of the first bridge, each by MAC and by address; their number is in the last four bytes of both.
    void introduce(size_t count);
    // A firmware page, which page requests are answered with.
    void keep_page();

    // From the first bridge, as the decoder hands it over.
    bool receive(const bytes_t& frame);

    // Takes what the servers and the bridges have been sent; false when it is not as many messages as that.
    bool take(size_t expected);

private:
    zsock_t* m_handler;
    zsock_t* m_proxy;
};

// A frame, which is sent again and again with another sequence number each time.
struct frame_case {
    const char* name;
    bytes_t frame;
    size_t seq_at; // where the registry reads the sequence number
    size_t sent;   // messages that one frame causes
};

// Each kind of message, from node 0.
std::vector<frame_case> frame_cases();

// --- these two for whole populations of nodes

bytes_t plain_heartbeat();
bytes_t direct_sensor_report();

} // namespace rtls
