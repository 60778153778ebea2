// win_counters - what the WIN server's thread counts: bridges, their messages, and commands.
//
// Every message that the decoder completes (frames_in) ends in exactly one of `messages`; every command in
// exactly one of `commands`; every message for a bridge is sent or cached or lost, and every cached one is
// flushed, or lost, or waits still. So the figures can be checked against each other.
// Threads    The WIN server's writes; any reads (base/counter.h).
#pragma once

#include "base/counter.h"

#include <array>
#include <cstdint>

namespace rtls {

// What the WIN port tells: connections, their ends, and data.
enum class bridge_event : uint8_t { connected, data, disconnected, data_of_nobody, late_end, kinds };

// Frames that never became messages.
enum class frame_loss : uint8_t { restarted, empty, too_long, out_of_memory, given_up, unfinished, kinds };

// The decoder's.
struct decoder_counters {
    counter noise; // bytes outside of frames
    counters<frame_loss> lost;
};

// Messages from bridges by the type that decided what became of them: an envelope's only when it was refused
// itself.
enum class message_type : uint8_t {
    none, // too short for a type
    ping,
    panid_req,
    announce_root,
    heartbeat,
    node_announce,
    generic_server_req,
    sensor,
    wrap_ts,
    nwk_data_ind,
    trf2srv_via_client,
    other,
    kinds
};

enum class message_outcome : uint8_t {
    report, // forwarded: offered to the message handler's queue
    line,   // forwarded as a management line: offered to the proxy input's queue
    answered,
    unknown_type,
    too_short,
    wrong_size,
    unknown_node,
    duplicate,
    registry_full,
    foreign_node,
    out_of_memory,
    kinds
};

// What becomes of a message on its way down to one bridge.
enum class delivery : uint8_t {
    sent, // or gathered: the bridge's bytes are being read (link/sending.h)
    cached,
    lost,
    no_bridge,
    not_made // memory is short
};

enum class bridge_message_loss : uint8_t { queue_full, out_of_memory, given_up, bridge_closed, kinds };

enum class bridge_end : uint8_t { peer, unwanted, kinds };

enum class command_type : uint8_t {
    undecodable, // no hex, too long, or too short for a type
    ota_upload_fw,
    nwk_data_req,
    conf_node_req,
    fw_image_avail_ind,
    generic_req,
    rest_ack,
    sensor_req,
    conf_sensor_req,
    tdoa_sched_conf_req,
    other,
    of_operator,
    kinds
};

enum class command_outcome : uint8_t {
    sent,
    cached,
    lost,
    no_bridge, // the node's bridge has gone, or there is none at all
    node_not_found,
    repeat,
    malformed,
    unknown_type,
    ordered, // a download, which is counted for itself
    out_of_memory,
    kinds
};

enum class page_request_outcome : uint8_t { served, not_found, refused, kinds };
enum class page_seen_outcome : uint8_t { stored, refused, kinds };
enum class discovery_outcome : uint8_t { answered, not_sent, malformed, own, flood, kinds };

struct win_counters {
    template <typename Type, typename Outcome>
    using matrix = std::array<counters<Outcome>, static_cast<size_t>(Type::kinds)>;

    counters<bridge_event> events;
    counter bytes_in;
    counter bytes_out;
    counter frames_in;
    decoder_counters decoder;
    matrix<message_type, message_outcome> messages;
    counter acknowledgements;
    time_counts hand_over; // reports and lines, from the look that found their bytes to the library's queue

    counter bridges_accepted;
    counter bridges_not_made; // for lack of memory
    counters<bridge_end> bridges_closed;
    counter bridge_messages_sent; // at once
    counter bridge_messages_cached;
    counter bridge_messages_flushed;
    counters<bridge_message_loss> bridge_messages_lost;

    matrix<command_type, command_outcome> commands;
    counters<page_request_outcome> page_requests;
    counters<page_seen_outcome> pages_seen;
    counters<discovery_outcome> discovery;

    void note(message_type type, message_outcome outcome) noexcept
    {
        messages[static_cast<size_t>(type)][outcome].add();
    }
    void note(command_type type, command_outcome outcome) noexcept
    {
        commands[static_cast<size_t>(type)][outcome].add();
    }
};

} // namespace rtls
