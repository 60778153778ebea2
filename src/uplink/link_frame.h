// link_frame - what is known of the one frame from a WIN client that is being processed.
//
// Private to the processing of messages from WIN clients.
// Ownership  Borrows all it refers to. The frame stands in the client's pending_data, which is ours until the
//            decoder begins the next one: handlers convert it in place.
// Threads    WIN server thread; lives as long as one call of process_data_from_win_client. No lock of its
//            own; nothing waits.
// Bytes      msg as it came in, but for its type, whose flag bits are cleared.
// Failures   None of its own; what goes upstream may be lost (uplink/upstream.h).
#pragma once

#include "base/bytes.h"
#include "base/peer.h"
#include "link/win_server_private.h"
#include "registry/nodes_container.h"
#include "uplink/node_news.h"
#include "uplink/upstream.h"
#include "wire/messaging.h"

#include <array>
#include <ctime>

namespace rtls {

struct link_frame {
    WIN_SERVER_t& server;
    WIN_CLIENT_t& client; // the one that sent the frame
    NODES_CONTAINER_t& nodes;
    // The message at hand, envelopes removed. A forwarded one reaches over the envelope's trailer, so
    // that its sender's MAC follows its payload as the sender's address does in a direct one.
    bytes_span msg;
    uint16_t type;                   // of msg, flag bits cleared
    message_type kind;               // what it is counted as
    tav_timestamp_t input_time;      // of reception: stamps nodes and debug lines
    tav_timestamp_t generation_time; // from the timestamp envelope, else as above: goes upstream

    bool ack_requested = false;
    bool ack_dst_known = false; // a handler has filled in the ack's ipaddr
    bool direct_mask = false;
    bool msg_is_forwarded = false;  // it came inside a 15.4 envelope
    bool change_route = true;       // move the node's route to this client
    bool has_envelope_news = false; // there is something in news_of_envelope,
    bool has_news = false;          // and in news
    std::array<uint8_t, gwMsgAck_t::size> ack{};
    node_news news_of_envelope{}; // for the tap: of the node that the envelope names,
    node_news news{};             // and of the one that the message itself does

    // The message's own, in place.
    uint8_t* seq_no() { return &msg[msgGeneric_t::seqNo]; }

    // Somebody has sent what is being processed: to be called before the node's record is changed. `moves_route`:
    // whether his route is about to be this client.
    void note_locked(node_news& of, bool& has, const NODE_t& node, bool moves_route) RTLS_REQUIRES(nodes)
    {
        if (!server.tap.takes(tap_class::event)) [[likely]]
            return;
        of.note_sender(node, moves_route ? frame_bytes(client.id) : bytes_view{});
        has = true;
    }

    // When the node was heard: the time of reception.
    timeval activity() const
    {
        return {.tv_sec = static_cast<time_t>(input_time.seconds),
                .tv_usec = static_cast<suseconds_t>(input_time.milliseconds) * 1000};
    }

    // What the registry's refusal of the sender makes of the message; under the lock.
    message_outcome refusal_locked() const RTLS_REQUIRES(nodes)
    {
        switch (nodes.last_refusal()) {
        case node_refusal::duplicate:
            return message_outcome::duplicate;
        case node_refusal::foreign:
            return message_outcome::foreign_node;
        case node_refusal::no_room:
            break;
        }
        return message_outcome::registry_full;
    }

    // Addresses the ack, if one is asked for. `ip_addr`: 16 bytes.
    void acknowledge_to(const uint8_t* ip_addr)
    {
        if (!ack_requested)
            return;
        ack_dst_known = true;
        store_bytes(ack, gwMsgAck_t::ipaddr, {ip_addr, ip_addr_size});
    }

    // Hands a report on, stamped with the time of its generation.
    message_outcome to_msg_handler(bytes_view data)
    {
        const auto seconds = static_cast<uint32_t>(generation_time.seconds);
        const auto milliseconds = static_cast<uint16_t>(generation_time.milliseconds);
        data_to_msg_handler(&server, data.data(), data.size(), seconds, milliseconds);
        if (server.tap.takes(tap_class::report)) [[unlikely]]
            tap_report(server, data, seconds, milliseconds);
        return message_outcome::report;
    }
};

} // namespace rtls
