// captured_links - a capture of the bridges' port as messages of the tap: link/in, link/out, and an event for each
// connection when it is first seen.
//
// Ownership  Owns the file that is open, and of each connection the bytes that wait for others.
// Threads    One.
// Blocking   As files and pipes do.
// Failures   A file that cannot be opened: rtls::recording::file_error. One that is damaged, or cannot be read further,
//            ends, so that what was before is still shown: end() tells it. Of memory: std::bad_alloc; beyond 100,000
//            connections all are forgotten, and seen anew.
#pragma once

#include "recording/capture.h"
#include "recording/files.h"
#include "recording/tap_message.h"
#include "rtls-tail/reassembly.h"
#include "rtls-tail/segment.h"
#include "tap/program.h"

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tail {

class captured_links {
public:
    // "-" is the standard input. `port`: the gateway's, for bridges.
    captured_links(const std::string& file, uint16_t port);

    // False behind the last. What one segment brought is one message, however reads and writes had cut it.
    bool next(rtls::recording::tap_message& message);
    // In front of the last message bytes of its connection and direction are missing.
    bool follows_gap() const { return m_follows_gap; }
    uint64_t missing_bytes() const { return m_missing_bytes; }
    // When all has been told: notes what is missing; of damage: tap::failure, failed.
    void end(const tap::program& told_by) const;

private:
    struct connection {
        uint32_t number = 0;
        reassembly in;
        reassembly out;
    };
    struct ready_message {
        rtls::recording::tap_message message;
        bool follows_gap = false;
    };
    using ends = std::array<tcp_end, 2>; // the bridge's, and the gateway's

    rtls::recording::reading read_packet();
    void take(const tcp_segment& segment, uint64_t clock_ns);
    connection& of(const ends& both, const uint32_t* begins, uint64_t clock_ns);
    void open(connection& it, const ends& both, uint64_t clock_ns);
    void close(connection& it);
    void close_all();
    void add(const connection& it, rtls::recording::message_class of, std::vector<reassembly::piece> pieces);
    rtls::recording::tap_message new_message(rtls::recording::message_class of, uint32_t number,
                                             uint64_t clock_ns);

    std::string m_name;
    uint16_t m_port;
    std::unique_ptr<rtls::recording::byte_source> m_source;
    rtls::recording::capture_reader m_reader;
    rtls::recording::captured_packet m_packet;
    rtls::recording::reading m_state = rtls::recording::reading::message;
    std::string m_reason; // why it is damaged, with the file's name
    std::map<ends, connection> m_connections;
    uint32_t m_opened = 0;
    std::array<uint64_t, rtls::recording::class_count> m_numbers{};
    std::deque<ready_message> m_ready;
    bool m_follows_gap = false;
    uint64_t m_missing_bytes = 0;
};

} // namespace tail
